// Runs the one target of a program that is linked to libFuzzer.
#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Velantrix::Fuzz::Target& target = Velantrix::Fuzz::Target::only();
  return target.run(data, size);
}
