// A process of its own that fetches CRLs, to be measured and to be killed.
//
//   crl_fetcher URI [ROUNDS]
//
// Looks for the CRLs of the URI ROUNDS times, 1 by default and for ever when 0. Then it prints how
// many it found the last time and the most memory that it ever held, in KiB.
#include <pkx509/URILookup.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <list>
#include <string>

namespace {

using namespace Velantrix::Crypto::PKX509;

// Not by getrusage, which tells the peak of the process that started this one when that is higher.
std::string peakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmHWM:" && status >> word) return word;
  }
  return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const Velantrix::Uri uri(argv[1]);
  const long rounds = argc < 3 ? 1 : std::atol(argv[2]);
  std::list<RefCertificateRevocationList> crls;
  for (long round = 0; rounds == 0 || round < rounds; ++round) {
    crls.clear();
    URILookup().find(uri, crls);
  }
  std::cout << crls.size() << ' ' << peakMemory() << std::endl;
  return 0;
}
