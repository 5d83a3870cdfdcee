// The arguments of the verbs. Verbs declare what they take; only options.cpp knows the argument parser.
#pragma once

#include "output.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace command {

// One verb, or a group of verbs such as `attr`.
class Verb {
public:
    Verb(CLI::App *app, OutputForm *form) : app_(app), form_(form) {}

    // A verb below this one. Its name may have other names behind it: "list,ls".
    Verb add(const std::string &names, const std::string &help);

    // What the verb does; it gives the exit status. Makes the verb a leaf that takes --json and the like.
    Verb &runs(std::function<int()> action);

    // Arguments by position, in the order of these calls.
    Verb &takes(const std::string &name, std::string &value, const std::string &help);
    Verb &takesOptional(const std::string &name, std::string &value, const std::string &help);
    Verb &takesMany(const std::string &name, std::vector<std::string> &values, const std::string &help);

    // Options: one value, one value at each use, none.
    Verb &option(const std::string &name, std::string &value, const std::string &placeholder, const std::string &help);
    Verb &options(const std::string &name, std::vector<std::string> &values, const std::string &placeholder,
                  const std::string &help);
    Verb &flag(const std::string &name, bool &value, const std::string &help);

    [[nodiscard]] const OutputForm &form() const { return *form_; }

private:
    CLI::App *app_;
    OutputForm *form_;
};

// A verb of the command. What it takes is declared only when the command line names it: most of a short run is
// start-up.
struct VerbEntry {
    const char *names;
    const char *help;
    void (*fill)(Verb &verb);
};

// Parses the command line and runs the verb. Gives the exit status.
[[nodiscard]] int parseAndRun(int argc, char **argv, const VerbEntry *verbs, size_t count);

} // namespace command
