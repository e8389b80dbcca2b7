// Peak memory of one reading, measured in a process of its own.
#pragma once

#include <string>

namespace Velantrix::Bench {

// The argument that makes the program measure instead of run benchmarks.
inline constexpr char kPeakArgument[] = "--peak-memory";

// MiB that a new process holds at most while `who` ("library" or "openssl") reads the CRL, beyond
// what it held with the file in memory; or while the library reads the "file".
double peakMemory(const std::string& who, const std::string& content);

// The new process's part: reads the file and prints the number.
int measurePeak(const std::string& who, const std::string& file);

// What is measured. "file" reads the file itself.
void readForPeak(const std::string& who, const std::string& der);
void readFileForPeak(const std::string& file);

}  // namespace Velantrix::Bench
