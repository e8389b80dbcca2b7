// Asks a responder about a certificate. What an answer has to fulfil before it is accepted is in
// RFC 6960, 3.2, and who may sign it in 4.2.2.2; the clauses stand beside the steps.
#include "foundation/base/Fail.h"
#include "foundation/base/Log.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/ConnectionSubject.h"
#include "verify/CheckTime.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/OCSP.h>
#include <pkx509/Verifier.h>
#include <velantrix/Exception.h>

#include <algorithm>
#include <sstream>
#include <string>

namespace Velantrix::Crypto::PKX509::OCSP {

namespace HTTP = LW::HTTP;

namespace {

// What a responder says is handed on as it is.
static_assert(kGood == V_OCSP_CERTSTATUS_GOOD && kRevoked == V_OCSP_CERTSTATUS_REVOKED &&
              kNoAnswer == V_OCSP_CERTSTATUS_UNKNOWN);

// Lines about a certificate name it by the address of its object.
std::string certificateText(const RefCertificate& certificate) {
  std::ostringstream text;
  text << "Certificate " << static_cast<const void*>(certificate->native());
  return text.str();
}

// The length is the only header beside the type: responders get exactly these bytes. The path
// brings a slash of its own.
std::string header(const Uri& uri, std::size_t length) {
  return "POST /" + uri.path() +
         " HTTP/1.0\r\n"
         "Content-Type: application/ocsp-request\r\n"
         "Content-Length: " +
         std::to_string(length) + "\r\n\r\n";
}

// Finds the responder's certificate by the identifier of the answer: a name or the hash of a key
// (RFC 6960, 4.2.1, ResponderID).
template <class Identifier>
RefCertificate findResponder(const Identifier& identifier, const BasicResponse& basic,
                             const std::list<RefCertificate>& chain, bool& cameWithAnswer) {
  const RefCertificate sent = s_findIssuer(identifier, basic.certificates());
  cameWithAnswer = !sent.empty();
  return cameWithAnswer ? sent : s_findIssuer(identifier, chain);
}

}  // namespace

Client::Client(Verifier& asking, const std::list<RefCertificate>& path)
    : verifier(asking), chain(path) {}

Client::~Client() {
  const NoCancellation untilReturn;
  connection = HTTP::RefConnection();
}

bool Client::connect(const Uri& responder) {
  const NoCancellation untilReturn;
  if (uri.isNull() || uri != responder) {
    uri = responder;
    if (!connection.empty()) {
      connection->disconnect();
      connection = HTTP::RefConnection();
    }
  }
  if (connection.empty()) {
    if (!HTTP::isHandled(uri)) {
      log(kPriorityDebug,
          "OCSP::Client: unhandled uri: " + uri.asString() + " scheme = " + uri.scheme());
      return false;
    }
    if (connectionAdmitted()) {
      HTTP::RefStream stream = HTTP::streamFor(uri, {kClientCertificateFile, kClientKeyFile});
      connection = HTTP::RefConnection(stream);
      HTTP::Failure failure;
      const auto endpoint = HTTP::findEndpoint(uri, failure);
      if (endpoint.has_value()) {
        connected = connection->connect(*endpoint);
      } else {
        connection->unreachable(failure);
      }
    }
  }
  if (!connected) {
    log(kPriorityInfo, "OCSP::Client: Could not connect to uri: " + uri.asString());
  }
  return connected;
}

int Client::isRevoked(const RefCertificate& certificate) {
  const NoCancellation untilReturn;
  for (const RefCertificate& candidate : chain) {
    try {
      if (!certificate->issuedBy(candidate, true)) continue;
      bool settled = false;
      const int answer = query(certificate, candidate, settled);
      if (settled) return answer;
    } catch (const Exception& failure) {
      // The line has always gone out without its text.
      logMisplaced("OCSP::Client::isRevoked: Caught " + failure.asString());
      return kNoAnswer;
    }
  }
  return kNoAnswer;
}

// Asks about the certificate as one of this issuer. Not settled: the next issuer is to be tried.
int Client::query(const RefCertificate& certificate, const RefCertificate& issuer, bool& settled) {
  if (!connected) {
    fail({"OCSP::Client::send", "OCSP"}, "Not Connected");
  }
  if (queryTime != 0) connection->maxQueryTime(queryTime);
  const Request request(certificate, issuer);
  const LW::RefBuffer& pdu = request.pdu();
  if (pdu->length() == 0) return kNoAnswer;
  connection->send(header(uri, pdu->length()));
  connection->send(pdu);
  if (connection->receive() != HTTP::Connection::kComplete) {
    log(kPriorityInfo, certificateText(certificate) + " : No data from OCSP server.");
    return kNoAnswer;
  }
  const Response response(connection->content());
  if (response.status() != OCSP_RESPONSE_STATUS_SUCCESSFUL) {
    log(kPriorityInfo, certificateText(certificate) + " : Invalid response from OCSP server.");
    return kNoAnswer;
  }

  settled = true;
  const BasicResponse basic(response);
  // 4.4.1: the nonce is that of the request. An answer without one passes: it is meant so.
  if (!basic.matches(request)) {
    log(kPriorityDebug, "OCSP::Client. OCSP Response does not match the request");
    return kNoAnswer;
  }
  if (const int refused = isSignatureValid(response, basic); refused != kGood) return refused;
  // 3.2, 1: the answer is about the certificate that was asked about. One that does not mention it
  // counts as good: it is meant so. So it is that thisUpdate and nextUpdate, 3.2, 5 and 6, are not
  // compared with the clock.
  const Response::Status status = response.find(basic, request.id());
  if (status.status == V_OCSP_CERTSTATUS_REVOKED) {
    logMisplaced(certificateText(certificate) +
                 " is revoked: " + OCSP_crl_reason_str(status.reason));
  }
  return status.status;
}

int Client::isSignatureValid(const Response& /*response*/, const BasicResponse& basic) {
  OCSP_BASICRESP* const native = basic;
  if (native == nullptr) return kNoAnswer;

  const ASN1_OCTET_STRING* keyHash = nullptr;
  const X509_NAME* name = nullptr;
  bool cameWithAnswer = false;
  RefCertificate responder;
  // 3.2, 3: who is to answer at a URI is not known beforehand; the signer is whom the answer names.
  if (OCSP_resp_get0_id(native, &keyHash, &name) == 1 && name != nullptr) {
    responder = findResponder(DistinguishedName(name), basic, chain, cameWithAnswer);
  } else if (keyHash != nullptr) {
    responder = findResponder(ASN1::RefOctetString(keyHash), basic, chain, cameWithAnswer);
  } else {
    // OpenSSL has no name for the type of an identifier that is neither.
    fail({"Client::isSignatureValid", "OCSP"}, "OCSP response identifier not supported: -1");
  }
  if (responder.empty()) return kResponderUnknown;

  // 3.2, 4: the signer may speak about this certificate. Of the criteria of 4.2.2.2 the second,
  // the issuing CA, is widened to every certificate of the chain. In the place of the third, a
  // delegate of that CA with id-kp-OCSPSigning, stands whatever validates against the store. Its
  // own revocation (4.2.2.2.1) is not checked, with id-pkix-ocsp-nocheck or without. It is meant
  // so.
  const bool inChain = std::find(chain.begin(), chain.end(), responder) != chain.end();
  if (cameWithAnswer && !inChain && !validate(responder)) {
    log(kPriorityInfo, "OCSP::Client: Could not validate Responder's certificate.");
    return kResponderNotValid;
  }

  // 3.2, 2: the signature is valid.
  const RefKey key = responder->key();
  const ErrorScope errors;
  if (ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA), OCSP_resp_get0_tbs_sigalg(native),
                       OCSP_resp_get0_signature(native), OCSP_resp_get0_respdata(native),
                       key->keyData()) < 1) {
    log(kPriorityInfo, "OCSP::Client: Response Signature check failed.");
    return kSignatureWrong;
  }
  return kGood;
}

// Verifies a responder's certificate that is in the answer only. The store is cloned, so that
// nothing of it stays in the outer one.
bool Client::validate(const RefCertificate& responder) {
  const ErrorScope errors;
  Verifier nested(verifier.objectStore()->clone(), responder, RefStackOfCertificate(chain), false);
  X509_STORE_CTX* const context = nested;
  // A responder whose own revocation had to be asked for would be asked by itself.
  if (X509_VERIFY_PARAM_clear_flags(X509_STORE_CTX_get0_param(context), X509_V_FLAG_CRL_CHECK) !=
      1) {
    return false;
  }
  takeOverTime(verifier, nested);
  nested.parent(verifier);
  return nested.isValid() == X509_V_OK;
}

}  // namespace Velantrix::Crypto::PKX509::OCSP
