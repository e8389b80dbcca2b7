#include "Plugin.h"

#include <velantrix/Exception.h>

extern "C" PLUGIN_EXPORT int codeOfException(CountCertificates* count, const char* file) {
  try {
    count(file);
  } catch (const Velantrix::Exception& e) {
    return e.code();
  } catch (...) {
    return -1;
  }
  return 0;
}
