// Action plug-ins.
#include "common/failure.h"
#include "common/keepers.h"
#include "common/program_directory.h"
#include "common/program_run.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <sharesnap/platform/plugin.h>
#include <string>
#include <utility>
#include <vector>

// No descriptor is kept in a handle: not every caller closes it, and a long-running one must not run out of them.
struct QLIBPLUGIN {
    std::string name;
    bool hasPrograms = false;
    bool blocking = false;
    std::vector<std::pair<std::string, std::string>> arguments;
};

namespace {

using namespace QovaPlatform;

// All open handles, so that one that its user never closes isn't lost to memory checkers. Never destroyed: a handle may
// be closed while the process ends.
struct Registry {
    std::mutex mutex;
    std::vector<std::unique_ptr<QLIBPLUGIN>> handles;
};

Registry &registry() {
    static Registry *const all = new Registry;
    return *all;
}

std::string directoryOf(const std::string &name) {
    return "plugins/" + name;
}

int setArgument(QLIBPLUGIN *plugin, const char *key, const char *value) {
    for (auto &argument : plugin->arguments) {
        if (argument.first == key) {
            argument.second = value;
            return 0;
        }
    }
    plugin->arguments.emplace_back(key, value);
    return 0;
}

// The action's name stands among the arguments; a program gets it as an argument as well, behind the phase.
ProgramCall callOf(const QLIBPLUGIN &plugin, int phase) {
    std::string action;
    for (const auto &argument : plugin.arguments) {
        if (argument.first == "ACTION") {
            action = argument.second;
        }
    }
    ProgramCall call({phase == QLIB_PLUGIN_PHASE_PRE ? "pre" : "post", action});
    for (const auto &argument : plugin.arguments) {
        (void)call.setVariable(argument.first, argument.second); // its name has been checked when it was set
    }
    return call;
}

int runAll(const QLIBPLUGIN &plugin, int phase) {
    const ProgramCall call = callOf(plugin, phase);
    const bool waitForEnd = phase == QLIB_PLUGIN_PHASE_PRE || plugin.blocking;
    std::vector<Program> programs;
    int result = 0;
    if (!openPrograms(directoryOf(plugin.name), Unsafe::passOver, &programs)) {
        QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
        result = -1;
    }
    for (const Program &program : programs) {
        const bool done = waitForEnd ? runProgram(program, call) : startProgram(program, call);
        if (!done) {
            QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED); // the others are run all the same
            result = -1;
        }
    }
    return result;
}

} // namespace

extern "C" {

int QLIBPluginSDKInit(const char *szName, const char *szLabel, QLIBPLUGIN **ppPlugin) {
    if (szName == nullptr || szLabel == nullptr || ppPlugin == nullptr || !isProgramName(szName)) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        auto plugin = std::make_unique<QLIBPLUGIN>();
        plugin->name = szName;
        std::vector<Program> programs;
        if (!openPrograms(directoryOf(plugin->name), Unsafe::log, &programs)) {
            QOVA_SET_CODE(SNAP_ERR_OPERATION_FAILED);
            return -1;
        }
        plugin->hasPrograms = !programs.empty();
        QLIBPLUGIN *const handle = plugin.get();
        Registry &all = registry();
        const std::lock_guard<std::mutex> guard(all.mutex);
        all.handles.push_back(std::move(plugin));
        *ppPlugin = handle;
        return 0;
    });
}

int QLIBPluginHasInit(const QLIBPLUGIN *pPlugin) {
    return pPlugin != nullptr && pPlugin->hasPrograms ? 1 : 0;
}

int QLIBPluginSetArg(QLIBPLUGIN *pPlugin, const char *szKey, const char *szValue) {
    if (pPlugin == nullptr || szKey == nullptr || szValue == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        return ProgramCall::mayBeSet(szKey) ? setArgument(pPlugin, szKey, szValue) : QOVA_BAD_ARGUMENT();
    });
}

int QLIBPluginSetArgByInt(QLIBPLUGIN *pPlugin, const char *szKey, int nValue) {
    return Guarded(__FILE_NAME__, __LINE__, -1,
                   [&] { return QLIBPluginSetArg(pPlugin, szKey, std::to_string(nValue).c_str()); });
}

int QLIBPluginAction(int nPhase, QLIBPLUGIN *pPlugin) {
    if (pPlugin == nullptr || (nPhase != QLIB_PLUGIN_PHASE_PRE && nPhase != QLIB_PLUGIN_PHASE_POST)) {
        return QOVA_BAD_ARGUMENT();
    }
    return Guarded(__FILE_NAME__, __LINE__, -1, [&] {
        const int result = runAll(*pPlugin, nPhase);
        if (nPhase == QLIB_PLUGIN_PHASE_POST) {
            // The operation is over. A handle that stays open need not keep its list of snapshots.
            pPlugin->arguments.clear();
            pPlugin->arguments.shrink_to_fit();
        }
        return result;
    });
}

int QLIBPluginSetBlocking(QLIBPLUGIN *pPlugin, int blBlocking) {
    if (pPlugin == nullptr) {
        return QOVA_BAD_ARGUMENT();
    }
    pPlugin->blocking = blBlocking != 0;
    return 0;
}

void QLIBPluginExit(QLIBPLUGIN *pPlugin) {
    if (pPlugin == nullptr) {
        return;
    }
    const ErrnoKeeper keeper;
    Registry &all = registry();
    const std::lock_guard<std::mutex> guard(all.mutex);
    const auto handle = std::find_if(all.handles.begin(), all.handles.end(),
                                     [pPlugin](const auto &open) { return open.get() == pPlugin; });
    if (handle != all.handles.end()) {
        all.handles.erase(handle);
    }
}

} // extern "C"
