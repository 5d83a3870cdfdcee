#include "actor.h"

#include <sharesnap/platform/account.h>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace command {
namespace {

constexpr unsigned int noUser = ~0U; // what the kernel answers when nobody logged in

unsigned int loginUser() {
    unsigned int user = noUser;
    FILE *file = std::fopen("/proc/self/loginuid", "re");
    if (file != nullptr) {
        if (std::fscanf(file, "%u", &user) != 1) {
            user = noUser;
        }
        (void)std::fclose(file); // it was only read
    }
    return user;
}

// sudo tells whom it works for. Only root can have been made so by it.
unsigned int sudoUser() {
    const char *text = std::getenv("SUDO_UID");
    if (text == nullptr || getuid() != 0) {
        return noUser;
    }
    char *end = nullptr;
    const unsigned long user = std::strtoul(text, &end, 10);
    return end != text && *end == '\0' && user < noUser ? static_cast<unsigned int>(user) : noUser;
}

} // namespace

std::string actorName() {
    unsigned int user = loginUser();
    if (user == noUser) {
        user = sudoUser();
    }
    if (user == noUser) {
        user = getuid();
    }
    QOVAUSER *record = nullptr;
    if (QOVAUserGetByUID(user, &record) < 0 || record == nullptr) {
        return std::to_string(user);
    }
    std::string name = record->szName;
    QOVAUserFree(record);
    return name;
}

} // namespace command
