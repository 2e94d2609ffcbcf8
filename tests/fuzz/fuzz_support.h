// Shared pieces of the libFuzzer harnesses. Each harness file defines
// LLVMFuzzerTestOneInput and PCDfuzz_WriteSeeds; this part supplies the start-up that
// writes the seeds when QUORIX_FUZZ_SEEDS names a directory, and helpers for readers
// that only take a path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Written by each harness: a few small valid inputs made by the project's own writers.
void PCDfuzz_WriteSeeds(const char* dir);

// Writes bytes to a per-process scratch file whose name ends in suffix (".raw", ".nii")
// and returns its path; the same path is reused by every call with that suffix.
std::string PCDfuzz_TempFile(const uint8_t* data, size_t size, const char* suffix);

// Writes bytes into dir/name (for seeds).
void PCDfuzz_WriteFile(const char* dir, const char* name, const std::vector<uint8_t>& bytes);
// Reads a whole file (for seeds made through a writer that only takes a path).
std::vector<uint8_t> PCDfuzz_ReadFile(const std::string& path);
