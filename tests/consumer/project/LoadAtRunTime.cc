// usage: load-at-run-time LIBRARY THROWING-PLUGIN CATCHING-PLUGIN CERTIFICATE-FILE MISSING-FILE
//
// A daemon that knows nothing of the library when it is linked. It loads the library and two
// plugins, each into a scope of its own (RTLD_LOCAL), so that no symbol of one is there for the
// other; what one throws must still be what the other catches.
#include "Plugin.h"

#include <cstdlib>
#include <dlfcn.h>
#include <exception>
#include <iostream>
#include <string>
#include <typeinfo>

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "load-at-run-time: " << what << '\n';
  std::exit(1);
}

void expect(bool condition, const char* what) {
  if (!condition) fail(what);
}

void* load(const char* file) {
  void* const handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) fail(dlerror());
  return handle;
}

bool isLoaded(const char* file) {
  void* const handle = dlopen(file, RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

void* symbol(void* handle, const char* name) {
  void* const address = dlsym(handle, name);
  if (address == nullptr) fail(dlerror());
  return address;
}

// Without the class's typeinfo at link time a handler for it cannot be written here: the exception
// comes as its base, and its dynamic type is compared with what the library exports.
void expectException(const std::type_info& type, CountCertificates* count, const char* file) {
  try {
    count(file);
  } catch (const std::exception& e) {
    expect(typeid(e) == type, "what was thrown is not the library's Velantrix::Exception");
    expect(std::string(e.what()).find(file) != std::string::npos,
           "the exception does not name the file");
    return;
  }
  fail("nothing was thrown");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const char* const certificate = argv[4];
  const char* const missing = argv[5];
  expect(!isLoaded(argv[1]), "the library is there before it was loaded");

  void* const library = load(argv[1]);
  void* const throwing = load(argv[2]);
  void* const catching = load(argv[3]);
  const auto& exceptionType =
      *static_cast<const std::type_info*>(symbol(library, "_ZTIN9Velantrix9ExceptionE"));
  auto* const count = reinterpret_cast<CountCertificates*>(symbol(throwing, "countCertificates"));
  auto* const code = reinterpret_cast<CodeOfException*>(symbol(catching, "codeOfException"));

  expect(count(certificate) == 1, "the certificate was not read");
  expect(code(count, certificate) == 0, "an exception where there is no error");
  expect(code(count, missing) == 4, "the other plugin did not catch Velantrix::Exception");
  expectException(exceptionType, count, missing);

  // OpenSSL holds pointers into the library until the process ends.
  dlclose(catching);
  dlclose(throwing);
  dlclose(library);
  expect(isLoaded(argv[1]), "dlclose has unloaded the library");
  std::cout << "caught by its type\n";
  return 0;
}
