// The contract of storage cores, on the real one. On the simulated one: tests/unit/support_simulated_test.cpp.
#include "support/storage_contract.hpp"
