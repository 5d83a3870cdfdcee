// Drives a fuzz target without libFuzzer: replay [folder]
//
// First every file of the folder, then mutations of them: a fixed number from a fixed seed, or as many as
// SHARESNAP_CAMPAIGN_SECONDS leaves time for. An input that ends the process is printed in hexadecimal; so is one that
// takes more memory or time than its size can explain, since that ends the process, too.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz.hpp"
#include "support/bounded.hpp"

namespace {

constexpr int kMutations = 5000;
constexpr size_t kLargest = 1 << 16;
constexpr size_t kMostBytes = size_t{64} << 20; // for an input; another one for all that are kept
constexpr unsigned kMostSeconds = 60;           // for what takes milliseconds: the machine may be slow

std::string current; // the input that is being tried

void print(const char *text, size_t size) {
    if (write(STDERR_FILENO, text, size) < 0) {
        _exit(EXIT_FAILURE);
    }
}

void onSignal(int number) {
    constexpr char digits[] = "0123456789abcdef";
    print("the input: ", 11);
    for (const char c : current) {
        const auto byte = static_cast<unsigned char>(c);
        const char hex[] = {digits[byte >> 4], digits[byte & 15]};
        print(hex, sizeof(hex));
    }
    print("\n", 1);
    (void)std::signal(number, SIG_DFL);
    (void)std::raise(number);
}

// On a stack of its own: an overflow of the stack is one of the ends to be reported.
void printInputOnSignals() {
    static char stack[1 << 16];
    stack_t alternate{};
    alternate.ss_sp = stack;
    alternate.ss_size = sizeof(stack);
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_ONSTACK;
    if (sigaltstack(&alternate, nullptr) < 0) {
        std::perror("sigaltstack");
    }
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGPROF}) {
        (void)sigaction(number, &action, nullptr);
    }
}

bool taken(const std::string &input) {
    current = input;
    testkit::boundSeconds(kMostSeconds);
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(current.data()), current.size());
    return fuzzInputTaken;
}

std::vector<std::string> readFolder(const std::string &folder) {
    std::vector<std::filesystem::path> paths;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end()); // the same inputs everywhere
    std::vector<std::string> inputs;
    for (const auto &path : paths) {
        std::ostringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        inputs.push_back(text.str());
    }
    return inputs;
}

// Mutates inputs that were taken before; when there are many, any of them makes room for the next.
class Mutator {
public:
    void learn(const std::string &input) {
        if (inputs_.size() < kMostBases) {
            inputs_.push_back(input);
        } else {
            inputs_[below(inputs_.size())] = input;
        }
    }

    std::string next() {
        std::string input = any();
        for (size_t left = 1 + below(3); left > 0; --left) {
            change(input);
        }
        input.resize(std::min(input.size(), kLargest));
        return input;
    }

private:
    static constexpr size_t kMostBases = 500;
    std::vector<std::string> inputs_{""};
    std::mt19937 random_{20260102};

    size_t below(size_t limit) { return limit == 0 ? 0 : random_() % limit; }
    const std::string &any() { return inputs_[below(inputs_.size())]; }

    // Most changes keep the places of what follows, so that the input still reads as a file of its kind.
    void change(std::string &input) {
        const size_t at = below(input.size());
        const size_t length = 1 + below(std::min<size_t>(input.size() - at, 64));
        switch (below(12)) {
        case 0: // a number of the width of a length or a count
            overwrite(input, at, below(2) == 0 ? 4 : 8);
            break;
        case 1:
            input.erase(at, length);
            break;
        case 2:
            input.insert(at, input.substr(at, length));
            break;
        case 3: { // a piece of another file
            const std::string &other = any();
            const size_t from = below(other.size());
            input.replace(at, length, other.substr(from, 1 + below(64)));
            break;
        }
        case 4:
            input.resize(at);
            break;
        case 5:
        case 6:
        case 7: { // a piece of this file over another one of the same length
            const std::string piece = input.substr(below(input.size()), length);
            input.replace(at, piece.size(), piece);
            break;
        }
        default: // one byte, by a little or anyhow
            if (!input.empty()) {
                input[at] =
                    static_cast<char>(below(2) == 0 ? random_() : static_cast<size_t>(input[at]) ^ 1U << below(3));
            }
        }
    }

    void overwrite(std::string &input, size_t at, size_t width) {
        constexpr uint64_t numbers[] = {0, 1, 2, 0x7F, 0xFF, 0x7FFF, 0xFFFFF, 0x7FFFFFFF, 0xFFFFFFFF, ~uint64_t{0}};
        uint64_t number = numbers[below(std::size(numbers))];
        for (size_t i = at; i < std::min(at + width, input.size()); ++i) {
            input[i] = static_cast<char>(number & 0xFF);
            number >>= 8;
        }
    }
};

} // namespace

int main(int argc, char **argv) {
    (void)LLVMFuzzerInitialize(&argc, &argv);
    const std::vector<std::string> inputs = readFolder(argc > 1 ? argv[1] : SHARESNAP_FUZZ_CORPUS);
    if (inputs.empty()) {
        std::fprintf(stderr, "no files to begin with\n");
        return EXIT_FAILURE;
    }
    printInputOnSignals();
    testkit::boundMemory(2 * kMostBytes);
    Mutator mutator;
    for (const std::string &input : inputs) {
        if (taken(input)) {
            mutator.learn(input);
        }
    }
    const char *seconds = std::getenv("SHARESNAP_CAMPAIGN_SECONDS");
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::seconds(seconds == nullptr ? 0 : std::strtol(seconds, nullptr, 10));
    long mutations = 0;
    long good = 0;
    while (seconds == nullptr ? mutations < kMutations : std::chrono::steady_clock::now() < end) {
        const std::string input = mutator.next();
        ++mutations;
        if (taken(input)) {
            mutator.learn(input);
            ++good;
        }
    }
    std::printf("%zu files, %ld mutations, %ld of them taken\n", inputs.size(), mutations, good);
    return EXIT_SUCCESS;
}
