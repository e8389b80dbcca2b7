// What load-at-run-time asks of the two plugins. Plain C names, for dlsym; exceptions may pass.
#pragma once

extern "C" {

// ThrowingPlugin: reads a file of certificates and says how many there were. The library's
// exceptions leave it.
using CountCertificates = int(const char* file);

// CatchingPlugin: calls, catches Velantrix::Exception by its type and gives its code; -1 when
// something else was thrown, 0 when nothing was.
using CodeOfException = int(CountCertificates* count, const char* file);
}

#define PLUGIN_EXPORT __attribute__((visibility("default")))
