// What a fuzz target consists of: tests/fuzz/<folder>_<name>_fuzz.cpp defines the two functions, with libFuzzer's names
// and meanings, and the variable. A build with the sanitizer fuzzer-no-link (clang) makes a libFuzzer program of it; every other one
// links replay.cpp, which gives it the files of tests/data/<folder> and mutations of them.
#pragma once

#include <cstddef>
#include <cstdint>

// Exit status of a target that can't run here.
constexpr int kFuzzSkipped = 77;

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// True after an input that was taken, false after one that was refused: replay.cpp mutates the former.
extern bool fuzzInputTaken;
