// One line on a terminal that tells how far long work has come.
#pragma once

#include <string>

namespace command {

class Progress {
public:
    Progress();
    ~Progress() { clear(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // Nothing is shown when standard error isn't a terminal.
    void show(const std::string &text);
    void clear();

private:
    bool terminal_;
    bool shown_ = false;
};

} // namespace command
