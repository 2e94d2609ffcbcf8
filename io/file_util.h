// Small helpers shared by the file readers and writers of io/.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "vol/raw_volume.h"

// Blank characters of the "C" locale (blank, tab, line feed, carriage return, vertical
// tab, form feed), independent of the user's locale.
inline bool pcd_is_blank(int c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Cuts the line end off a line read with fgets: "\n" or "\r\n" (files written on Windows
// carry the latter), so that both compare equal to the same text.
inline void pcd_cut_line_end(char* line) {
  size_t n = 0;
  while (line[n] != '\0') ++n;
  if (n > 0 && line[n - 1] == '\n') line[--n] = '\0';
  if (n > 0 && line[n - 1] == '\r') line[--n] = '\0';
}

// Whole-token decimal integer with an optional sign; false on anything else or overflow.
bool pcd_parse_int64(const std::string& token, int64_t* value);

// Whole-token decimal number ("1000", "-0.5", "1e3"); false on anything else.
bool pcd_parse_double(const std::string& token, double* value);

// a * b into *result; false when it overflows or either factor is negative.
bool pcd_checked_mul(int64_t a, int64_t b, int64_t* result);

// Size of a regular file, -1 when it does not exist or is not a regular file.
int64_t pcd_regular_file_size(const char* fileName);

// snprintf into a string, numbers in the "C" locale.
std::string pcd_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes every channel block of the volume in channel order. Returns the bytes written,
// or -1 when a write fails.
int64_t pcd_write_blocks(FILE* file, const PcdRawVolumeData* volume);

// Reads a whole file into memory, refusing files larger than maxBytes. False when the
// file cannot be read.
bool pcd_read_whole_file(const char* fileName, int64_t maxBytes, std::string* contents);
