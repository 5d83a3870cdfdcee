/* Action plug-ins (libqovasdk): executables in /etc/sharesnap/plugins/<name> and /usr/lib/sharesnap/plugins/<name>.
 *
 * Which files are run. Names of letters, digits, '_' and '-', in the order of their names. A file in /etc hides the one of
 * the same name in /usr/lib, also when it isn't executable: that is how an administrator switches one off. The file has to
 * be a regular one, it and the directories down from /etc/sharesnap (/usr/lib/sharesnap) have to belong to root, be
 * writable by nobody else and be no symbolic links. What fails that is passed over, with a warning in the log.
 *
 * How they are run. Directly, not through a shell, with the arguments phase ("pre" or "post") and action (the value of
 * "ACTION"), and an environment of PATH, LC_ALL=C and the arguments that were set. A value of more than about 128 KiB is cut
 * behind its last blank that fits, and <KEY>_CUT=1 is set beside it. Input and output are /dev/null, the directory is "/",
 * the umask 022, signals are at their defaults, no descriptor is inherited (a script finds itself open as the one its
 * interpreter reads it from). A program that is waited for is killed when the thread that waits for it ends; one that
 * isn't runs in a session of its own.
 *
 * Where -1 is given a code stands in the register: 0x0D00 for an argument that can't be used, 0x0200 for memory, 0x2A00 for
 * a program that failed or can't be opened. No locks. A handle is for one thread at a time. */
#ifndef SHARESNAP_PLATFORM_PLUGIN_H
#define SHARESNAP_PLATFORM_PLUGIN_H

#include <sharesnap/platform/api.h>

QOVA_BEGIN_DECLS

typedef struct QLIBPLUGIN QLIBPLUGIN;

enum { QLIB_PLUGIN_PHASE_PRE = 4, QLIB_PLUGIN_PHASE_POST = 5 };

/* Opens the plug-ins of a name (letters, digits, '_' and '-'); szLabel may not be null and says nothing else. 0 and a
   handle for QLIBPluginExit; -1 also when the programs can't be looked at, as when no descriptor is free. A handle holds no
   descriptor, and one that is never closed costs memory only. */
QOVA_PLATFORM_API int QLIBPluginSDKInit(const char *szName, const char *szLabel, QLIBPLUGIN **ppPlugin);

/* 0 when there was nothing to run when the handle was opened (or the handle is null), else 1. */
QOVA_PLATFORM_API int QLIBPluginHasInit(const QLIBPLUGIN *pPlugin);

/* Sets a variable of the programs' environment; both texts are copied, an earlier value is replaced. A key consists of
   letters, digits and '_', and isn't one that steers the loader or the shell (LD_..., PATH, LC_ALL, IFS, ENV, BASH_ENV,
   SHELLOPTS, PS4, GCONV_PATH). 0 or -1. */
QOVA_PLATFORM_API int QLIBPluginSetArg(QLIBPLUGIN *pPlugin, const char *szKey, const char *szValue);
/* The same with the number as decimal text. */
QOVA_PLATFORM_API int QLIBPluginSetArgByInt(QLIBPLUGIN *pPlugin, const char *szKey, int nValue);

/* Runs the plug-ins of the phase, and goes on to the next when one fails. For PRE always, for POST when blocking was set,
   one after the other, waiting for each as long as it takes: 0 when all exited with 0, else -1. Otherwise they are only
   started: 0, or -1 when one couldn't be. After POST the variables are forgotten. */
QOVA_PLATFORM_API int QLIBPluginAction(int nPhase, QLIBPLUGIN *pPlugin);

/* Whether POST actions of this handle are waited for; they aren't unless this was called. 0 or -1. */
QOVA_PLATFORM_API int QLIBPluginSetBlocking(QLIBPLUGIN *pPlugin, int blBlocking);

/* Closes the handle; null is accepted. Programs that were started go on. Keeps errno. */
QOVA_PLATFORM_API void QLIBPluginExit(QLIBPLUGIN *pPlugin);

QOVA_END_DECLS
#endif
