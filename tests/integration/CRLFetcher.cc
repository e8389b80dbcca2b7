// A process of its own that fetches CRLs, to be measured and to be killed.
//
//   crl_fetcher URI [ROUNDS]
//
// Looks for the CRLs of the URI ROUNDS times, 1 by default and for ever when 0. Then it prints how
// many it found the last time and the most memory that it ever held, in KiB.
#include "support/Memory.h"

#include <pkx509/URILookup.h>

#include <cstdlib>
#include <iostream>
#include <list>
#include <string>

using namespace Velantrix::Crypto::PKX509;

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const Velantrix::Uri uri(argv[1]);
  const long rounds = argc < 3 ? 1 : std::atol(argv[2]);
  std::list<RefCertificateRevocationList> crls;
  for (long round = 0; rounds == 0 || round < rounds; ++round) {
    crls.clear();
    URILookup().find(uri, crls);
  }
  std::cout << crls.size() << ' ' << Velantrix::Test::memoryStatus("VmHWM") / 1024 << std::endl;
  return 0;
}
