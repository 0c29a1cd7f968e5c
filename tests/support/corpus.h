#pragma once

#include <cstddef>
#include <cstdint>

/// What a fuzz target defines: handles one input of foreign bytes, aborts when one of its rules does not
/// hold. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace kestrel_test
{
/// Gives LLVMFuzzerTestOneInput each file of tests/fuzz/<target>/corpus, then each file cut at every length,
/// then `rounds` changed copies of each file, the same ones in every run. Fails the test when the corpus is
/// empty.
void replay_corpus(const char* target, unsigned rounds = 300);
} // namespace kestrel_test
