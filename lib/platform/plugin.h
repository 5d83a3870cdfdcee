/* Action plug-ins: executables in /etc/sharesnap/plugins/<name> and /usr/lib/sharesnap/plugins/<name> (libqovasdk). */
#ifndef SHARESNAP_PLATFORM_PLUGIN_H
#define SHARESNAP_PLATFORM_PLUGIN_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

typedef struct QLIBPLUGIN QLIBPLUGIN;

enum { QLIB_PLUGIN_PHASE_PRE = 4, QLIB_PLUGIN_PHASE_POST = 5 };

/* Opens the plug-ins of a name. 0 or -1. A handle holds no descriptor. */
QOVA_PLATFORM_API int QLIBPluginSDKInit(const char *szName, const char *szLabel, QLIBPLUGIN **ppPlugin);
/* 0 when there is nothing to run, else nonzero. */
QOVA_PLATFORM_API int QLIBPluginHasInit(const QLIBPLUGIN *pPlugin);
QOVA_PLATFORM_API int QLIBPluginSetArg(QLIBPLUGIN *pPlugin, const char *szKey, const char *szValue);
QOVA_PLATFORM_API int QLIBPluginSetArgByInt(QLIBPLUGIN *pPlugin, const char *szKey, int nValue);
/* Runs the plug-ins with the phase as argument: waits for PRE always, for POST when blocking was set. 0, or -1 when one
   that was waited for failed or couldn't be started. */
QOVA_PLATFORM_API int QLIBPluginAction(int nPhase, QLIBPLUGIN *pPlugin);
QOVA_PLATFORM_API int QLIBPluginSetBlocking(QLIBPLUGIN *pPlugin, int blBlocking);
/* Closes the handle; null is accepted. */
QOVA_PLATFORM_API void QLIBPluginExit(QLIBPLUGIN *pPlugin);

QOVA_END_DECLS
#endif
