// Dereferences an empty handle, which has to stop the process; it is compiled with NDEBUG.
#include <pkx509/Object.h>

#include <iostream>

#ifndef NDEBUG
#error "This program shows what happens where assert() is compiled away."
#endif

int main() {
  const Velantrix::Crypto::PKX509::RefObject nothing;
  std::cout << nothing->type << " was read from nothing\n";
  return 0;
}
