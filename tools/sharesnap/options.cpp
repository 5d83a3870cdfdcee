#include "options.h"

#include "failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

namespace command {
namespace {

constexpr char footer[] = "Exit status: 0 done, 1 failed, 2 usage, 3 not found, 4 refused, 10 done in part.";

int chosenStatus = exitDone; // of the one verb that runs in a process

// True when one of the names, parted by commas, stands among the arguments.
bool isNamed(const std::string &names, int argc, char **argv) {
    const std::string wanted = "," + names + ",";
    return std::any_of(argv, argv + argc, [&wanted](const char *text) {
        return wanted.find(std::string(",") + text + ",") != std::string::npos;
    });
}

} // namespace

Verb Verb::add(const std::string &names, const std::string &help) {
    const size_t comma = names.find(',');
    CLI::App *below = app_->add_subcommand(names.substr(0, comma), help);
    if (comma != std::string::npos) {
        below->alias(names.substr(comma + 1));
    }
    app_->require_subcommand(1);
    return {below, form_};
}

Verb &Verb::runs(std::function<int()> action) {
    app_->add_flag("--json", form_->json, "Print JSON")->group("Output");
    app_->add_flag_callback(
            "--no-headers", [form = form_] { form->headers = false; }, "Leave the tables' headers out")
        ->group("Output");
    app_->add_flag("--utc", form_->utc, "Show and read times in UTC")->group("Output");
    app_->footer(footer);
    app_->final_callback([run = std::move(action)] { chosenStatus = run(); });
    return *this;
}

Verb &Verb::takes(const std::string &name, std::string &value, const std::string &help) {
    app_->add_option(name, value, help)->required()->type_name("");
    return *this;
}

Verb &Verb::takesOptional(const std::string &name, std::string &value, const std::string &help) {
    app_->add_option(name, value, help)->type_name("");
    return *this;
}

Verb &Verb::takesMany(const std::string &name, std::vector<std::string> &values, const std::string &help) {
    app_->add_option(name, values, help)->type_name("");
    return *this;
}

Verb &Verb::option(const std::string &name, std::string &value, const std::string &placeholder,
                   const std::string &help) {
    app_->add_option(name, value, help)->type_name(placeholder);
    return *this;
}

Verb &Verb::options(const std::string &name, std::vector<std::string> &values, const std::string &placeholder,
                    const std::string &help) {
    app_->add_option(name, values, help)->type_name(placeholder)->allow_extra_args(false);
    return *this;
}

Verb &Verb::flag(const std::string &name, bool &value, const std::string &help) {
    app_->add_flag(name, value, help);
    return *this;
}

int parseAndRun(int argc, char **argv, const VerbEntry *verbs, size_t count) {
    const auto isVerb = [argv](const VerbEntry &verb) { return isNamed(verb.names, 1, argv + 1); };
    const VerbEntry *chosen = argc > 1 ? std::find_if(verbs, verbs + count, isVerb) : verbs + count;
    if (argc > 1 && argv[1][0] != '-' && chosen == verbs + count) {
        throw Failure(exitUsage, "there is no verb " + quoted(argv[1]), "sharesnap --help lists the verbs");
    }
    CLI::App app("Snapshots of shared folders on Btrfs.", "sharesnap");
    OutputForm form;
    app.footer(footer);
    app.set_version_flag("--version", std::string("sharesnap ") + SHARESNAP_VERSION);
    Verb root(&app, &form);
    if (chosen != verbs + count) {
        Verb verb = root.add(chosen->names, chosen->help);
        chosen->fill(verb);
    } else { // only the help shows them all
        for (size_t i = 0; i < count; ++i) {
            Verb verb = root.add(verbs[i].names, verbs[i].help);
            if (isNamed(verbs[i].names, argc, argv)) {
                verbs[i].fill(verb);
            }
        }
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const bool asked = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success); // --help, --version
        if (asked) {
            app.exit(error);
            return exitDone;
        }
        complain(error.what(), "sharesnap --help, or sharesnap VERB --help");
        return exitUsage;
    }
    return chosenStatus;
}

} // namespace command
