// The arguments of a program as exec takes them.
#pragma once

#include <string>
#include <vector>

namespace testkit {

class ArgumentVector {
public:
    ArgumentVector(const std::string &program, const std::vector<std::string> &arguments) : texts_{program} {
        texts_.insert(texts_.end(), arguments.begin(), arguments.end());
        for (std::string &text : texts_) {
            pointers_.push_back(text.data());
        }
        pointers_.push_back(nullptr);
    }
    ArgumentVector(const ArgumentVector &) = delete;
    ArgumentVector &operator=(const ArgumentVector &) = delete;

    [[nodiscard]] char **data() { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char *> pointers_;
};

} // namespace testkit
