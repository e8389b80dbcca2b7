// Which data races ThreadSanitizer reports. It asks here before it reports one.
//
// OpenSSL is not instrumented. Of what it does, ThreadSanitizer sees memcpy, memcmp and the other
// functions that it intercepts, but no atomic operation, and so takes the lock-free tables of
// OpenSSL 3.5 for racy. A data race is therefore left out when both accesses are libcrypto's own:
// when it was libcrypto that called the intercepted function. A suppression leaves out more:
// race:libcrypto is content with one frame of one side, called_from_lib:libcrypto with one side,
// and a race of ours on memory that OpenSSL copies or compares would be left out with the others.
#include <openssl/crypto.h>

#include <cstdio>
#include <cstring>
#include <dlfcn.h>

// Exported by the sanitizer for this purpose, and declared in no header that is installed.
namespace __tsan {
class ReportDesc;
/// Takes the place of the sanitizer's own, which is weak. True: the report is not made.
[[gnu::visibility("default")]] bool OnReport(const ReportDesc* report, bool suppressed);
}  // namespace __tsan

extern "C" {
void* __tsan_get_current_report();
int __tsan_get_report_data(void* report, const char** description, int* count, int* stackCount,
                           int* accessCount, int* locationCount, int* mutexCount, int* threadCount,
                           int* uniqueThreadCount, void** sleepTrace, unsigned long sleepTraceSize);
int __tsan_get_report_mop(void* report, unsigned long index, int* thread, void** address, int* size,
                          int* write, int* atomic, void** trace, unsigned long traceSize);
}

namespace {

bool isDataRace(void* report) {
  const char* description = "";
  int ignored = 0;
  int accesses = 0;
  // Where a thread has slept before the access, one frame is written whatever the size says.
  void* sleeper[1] = {};
  __tsan_get_report_data(report, &description, &ignored, &ignored, &accesses, &ignored, &ignored,
                         &ignored, &ignored, sleeper, 1);
  return std::strcmp(description, "data-race") == 0 && accesses == 2;
}

/// The shared library or program that has this code in it; null when there is none.
template <typename Code>
const void* moduleOf(Code* code) {
  Dl_info info = {};
  return dladdr(reinterpret_cast<const void*>(code), &info) != 0 ? info.dli_fbase : nullptr;
}

/// The innermost frames are those of the intercepted function, or of instrumented code. A stack
/// that the sanitizer has lost is nobody's.
bool isByLibcrypto(void* report, unsigned long access) {
  int ignored = 0;
  void* address = nullptr;
  constexpr unsigned long kFrames = 8;
  void* trace[kFrames] = {};
  __tsan_get_report_mop(report, access, &ignored, &address, &ignored, &ignored, &ignored, trace,
                        kFrames);
  for (void* frame : trace) {
    if (frame == nullptr) return false;
    const void* module = moduleOf(frame);
    if (module != moduleOf(&__tsan_get_current_report)) return module == moduleOf(&CRYPTO_free);
  }
  return false;
}

}  // namespace

bool __tsan::OnReport(const ReportDesc* /*report*/, bool suppressed) {
  void* report = __tsan_get_current_report();
  if (!isDataRace(report) || !isByLibcrypto(report, 0) || !isByLibcrypto(report, 1)) {
    return suppressed;
  }
  std::fputs("ThreadSanitizer: left out a data race inside libcrypto\n", stderr);
  return true;
}
