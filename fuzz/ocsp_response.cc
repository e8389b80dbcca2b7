// What an OCSP responder answers: who signed it, and what it says about the leaf.
#include "Fixture.h"
#include "Fuzz.h"

#include <pkx509/OCSP.h>

#include <algorithm>

namespace Velantrix::Fuzz::OCSPResponseTarget {
namespace {

using namespace Crypto::PKX509;

// The CA, the certificate that is asked about, and the request.
struct Asker {
  Asker()
      : certificate(Test::handle(leaf())),
        issuer(Test::handle(root())),
        chain{certificate, issuer},
        request(certificate, issuer) {
    world.trust(root());
  }

  Test::World world;
  RefCertificate certificate;
  RefCertificate issuer;
  std::list<RefCertificate> chain;
  OCSP::Request request;
};

const Asker& asker() {
  static const auto* const made = new Asker;
  return *made;
}

void judge(const OCSP::Response& response, const OCSP::BasicResponse& basic) {
  const Asker& ask = asker();
  PKX509_ASSERT(accepted([&] { static_cast<void>(basic.matches(ask.request)); }));

  int accepter = -1;
  if (ran([&] {
        Verifier verifier(ask.world.store, ask.certificate, false);
        OCSP::Client client(verifier, ask.chain);
        accepter = client.isSignatureValid(response, basic);
      })) {
    const int known[] = {0, 2, 101, 117, 118};
    PKX509_ASSERT(std::find(std::begin(known), std::end(known), accepter) != std::end(known));
    PKX509_ASSERT((accepter == 2) == (static_cast<OCSP_BASICRESP*>(basic) == nullptr));
  }

  OCSP::Response::Status status;
  if (!accepted([&] { status = response.find(basic, ask.request.id()); })) return;
  PKX509_ASSERT(status.status == V_OCSP_CERTSTATUS_GOOD ||
                status.status == V_OCSP_CERTSTATUS_REVOKED ||
                status.status == V_OCSP_CERTSTATUS_UNKNOWN);
  if (static_cast<OCSP_BASICRESP*>(basic) == nullptr) {
    PKX509_ASSERT(status.status == V_OCSP_CERTSTATUS_GOOD);
  }
  if (status.status != V_OCSP_CERTSTATUS_REVOKED) PKX509_ASSERT(status.revocationTime.empty());
}

}  // namespace

PKX509_FUZZ_TARGET(ocsp_response) {
  begin();
  Velantrix::LW::Buffer bytes;
  bytes.append(data, size);
  std::unique_ptr<OCSP::Response> response;
  if (!accepted([&] { response = std::make_unique<OCSP::Response>(bytes); })) return 0;
  static_cast<void>(response->status());
  std::unique_ptr<OCSP::BasicResponse> basic;
  PKX509_ASSERT(accepted([&] { basic = std::make_unique<OCSP::BasicResponse>(*response); }));
  if (accepted([&] { static_cast<void>(basic->certificates()); })) {
    for (const RefCertificate& certificate : basic->certificates()) {
      PKX509_ASSERT(!certificate.empty());
    }
  }
  judge(*response, *basic);
  return 0;
}

}  // namespace Velantrix::Fuzz::OCSPResponseTarget
