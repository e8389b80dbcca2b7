// Asks a responder about a certificate. What an answer has to fulfil before it is accepted is in
// RFC 6960, 3.2, and who may sign it in 4.2.2.2; the clauses stand beside the steps.
#include "foundation/base/Fail.h"
#include "foundation/base/Log.h"
#include "foundation/base/NoCancellation.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/ConnectionSubject.h"
#include "foundation/run/FetchRecord.h"
#include "report/ExchangeFacts.h"
#include "report/OutcomeRecord.h"
#include "report/OwnRecord.h"
#include "verify/CheckTime.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/OCSP.h>
#include <pkx509/Verifier.h>
#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509::OCSP {

namespace HTTP = LW::HTTP;

using Revocation::Reason;

namespace {

// What a responder says is handed on as it is.
static_assert(kGood == V_OCSP_CERTSTATUS_GOOD && kRevoked == V_OCSP_CERTSTATUS_REVOKED &&
              kNoAnswer == V_OCSP_CERTSTATUS_UNKNOWN);

Revocation::Statement placedAt(const std::string& place) {
  Revocation::Statement answer;
  answer.kind = Revocation::Statement::Kind::kOCSP;
  answer.from = {Revocation::Provenance::Kind::kNetwork, place};
  return answer;
}

void setAside(const std::string& place, Reason reason, std::string_view detail = {},
              Revocation::AboutSigner signer = {}) noexcept {
  OutcomeRecord::note([&](Revocation::Outcome& /*outcome*/) {
    Revocation::Statement answer = placedAt(place);
    answer.responder = signer.certificate;
    OutcomeRecord::setAside(reason, answer, detail, std::move(signer));
  });
}

std::optional<Time> timeOf(const ASN1::RefGeneralizedTime& time) {
  return time.empty() ? std::nullopt : std::optional<Time>(time->asTime());
}

// What an answer says that counts.
void noteStatus(const std::string& place, const RefCertificate& responder,
                const Response::Status& said) {
  if (said.status == V_OCSP_CERTSTATUS_UNKNOWN) {
    return setAside(place, Reason::kStatusUnknown, {}, {.certificate = responder});
  }
  OutcomeRecord::note([&](Revocation::Outcome& outcome) {
    Revocation::Statement answer = placedAt(place);
    answer.responder = responder;
    answer.thisUpdate = timeOf(said.thisUpdate);
    answer.nextUpdate = timeOf(said.nextUpdate);
    const bool revoked = said.status == V_OCSP_CERTSTATUS_REVOKED;
    if (revoked && said.reason >= 0) outcome.revoked.reason = said.reason;
    if (revoked) outcome.revoked.date = timeOf(said.revocationTime);
    outcome.status = revoked ? Revocation::Status::kRevoked : Revocation::Status::kGood;
    outcome.decidedBy = {std::move(answer)};
  });
}

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

SourceUse useOf(const std::string& place) {
  return SourceUse(SourceRecord::Source::Kind::kOCSPResponder,
                   SourceRecord::Source::Wanted::kAnswer, place);
}

HTTP::RefStream streamFor(const Uri& uri, SourceUse& use) {
  try {
    return HTTP::streamFor(uri, {kClientCertificateFile, kClientKeyFile});
  } catch (const HTTP::IdentityError& error) {
    tellFailure(use, error.failure);
    throw;
  }
}

// True when there is an answer, whatever it is.
bool exchange(HTTP::RefConnection& connection, const std::string& header, const LW::RefBuffer& body,
              const std::string& place) {
  SourceUse use = useOf(place);
  connection->send(header);
  connection->send(body);
  const bool complete = connection->receive() == HTTP::Connection::kComplete;
  use.bytes(connection->contentReceived());
  countExchange(complete ? HTTP::Failure() : connection->failure(), connection->contentReceived());
  if (complete) {
    use.found(1);
  } else {
    tellFailure(use, connection->failure());
  }
  return complete;
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

// What is known about the last question.
struct Client::State {
  // Has `ask` called, and notes what comes of it where nobody else does. About no certificate where the
  // handle is empty. `ask` returns what its result comes to as the code of a report.
  template <class Ask>
  void during(const RefCertificate& about, const Ask& ask) {
    certificate = about;
    asked = Time::now();
    OwnRecord own(evidence, about.empty() ? nullptr : about->native());
    if (own.records()) evidence.revocation.front().code = X509_V_ERR_UNABLE_TO_GET_CRL;
    record = &own;
    try {
      evidence.code = ask();
    } catch (...) {
      record = nullptr;
      throw;
    }
    record = nullptr;
    const bool isAboutRevocation = evidence.objections.empty();
    if (own.records()) {
      evidence.revocation.front().code = isAboutRevocation ? evidence.code : X509_V_OK;
    }
  }

  // What a verification has asked that began while nothing was noted.
  void take(const SourceRecord& sources) noexcept {
    if (record == nullptr || !record->records()) return;
    try {
      for (const SourceRecord::Use& use : sources.uses()) {
        evidence.sources.add(SourceRecord::Use(use));
      }
    } catch (const std::exception&) {
      // What is only told must not cost more than the telling.
    }
  }

  std::string place = {};  // of the responder, as reports have it
  Evidence evidence = {};
  Time asked = {};
  RefCertificate certificate = {};  // none of a connection
  OwnRecord* record = nullptr;      // while something is asked
};

Client::Client(Verifier& asking, const std::list<RefCertificate>& path)
    : verifier(asking), chain(path), state(std::make_unique<State>()) {}

Client::~Client() {
  const NoCancellation untilReturn;
  connection = HTTP::RefConnection();
}

bool Client::connect(const Uri& responder) {
  const NoCancellation untilReturn;
  bool stands = false;
  state->during({}, [&] {
    stands = connectTo(responder);
    return stands ? X509_V_OK : X509_V_ERR_UNABLE_TO_GET_CRL;
  });
  if (stands) state->evidence = Evidence();  // nothing has been asked yet
  return stands;
}

bool Client::connectTo(const Uri& responder) {
  if (uri.isNull() || uri != responder) {
    uri = responder;
    state->place = FetchRecord::placeOf(uri);
    if (!connection.empty()) {
      connection->disconnect();
      connection = HTTP::RefConnection();
    }
  }
  SourceUse use = useOf(state->place);
  if (connection.empty()) {
    if (!HTTP::isHandled(uri)) {
      use.refused(notSpoken(uri));
      log(kPriorityDebug,
          "OCSP::Client: unhandled uri: " + uri.asString() + " scheme = " + uri.scheme());
      return false;
    }
    if (!connectionAdmitted()) {
      use.refused(notAdmitted());
    } else {
      HTTP::RefStream stream = streamFor(uri, use);
      connection = HTTP::RefConnection(stream);
      HTTP::Failure failure;
      const auto endpoint = HTTP::findEndpoint(uri, failure);
      if (endpoint.has_value()) {
        connected = connection->connect(*endpoint);
      } else {
        connection->unreachable(failure);
      }
      if (!connected) countExchange(connection->failure(), 0);
    }
  }
  if (connected) {
    use.drop();
  } else {
    if (!connection.empty()) tellFailure(use, connection->failure());
    log(kPriorityInfo, "OCSP::Client: Could not connect to uri: " + uri.asString());
    setAside(state->place, Reason::kNoAnswer, "could not connect");
  }
  return connected;
}

int Client::isRevoked(const RefCertificate& certificate) {
  const NoCancellation untilReturn;
  bool issuerKnown = false;
  // What is known about the connection says why nothing can be asked.
  if (!connected || connection.empty()) return ask(certificate, issuerKnown);
  int answer = kNoAnswer;
  state->during(certificate, [&] {
    answer = ask(certificate, issuerKnown);
    if (!issuerKnown) {
      state->evidence.objections = {{certificate, 0, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}};
      return X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
    }
    if (answer == kRevoked) return X509_V_ERR_CERT_REVOKED;
    return answer == kGood ? X509_V_OK : X509_V_ERR_UNABLE_TO_GET_CRL;
  });
  return answer;
}

VerificationReport Client::report() const {
  const RefCertificate& about = state->certificate;
  Surroundings surroundings{.checked = state->asked};
  if (!about.empty()) {
    surroundings.path = {about};
    surroundings.origins = {{VerificationReport::Origin::Kind::kCaller, {}}};
  }
  return makeReport(state->evidence, surroundings);
}

int Client::ask(const RefCertificate& certificate, bool& issuerKnown) {
  for (const RefCertificate& candidate : chain) {
    try {
      if (!certificate->issuedBy(candidate, true)) continue;
      issuerKnown = true;
      bool settled = false;
      const int answer = query(certificate, candidate, settled);
      if (settled) return answer;
    } catch (const Exception& failure) {
      // The line has always gone out without its text.
      logMisplaced("OCSP::Client::isRevoked: Caught " + failure.asString());
      setAside(state->place, Reason::kMalformed, failure.asString());
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
  if (!exchange(connection, header(uri, pdu->length()), pdu, state->place)) {
    log(kPriorityInfo, certificateText(certificate) + " : No data from OCSP server.");
    setAside(state->place, Reason::kNoAnswer, "no data");
    return kNoAnswer;
  }
  const Response response(connection->content());
  if (response.status() != OCSP_RESPONSE_STATUS_SUCCESSFUL) {
    log(kPriorityInfo, certificateText(certificate) + " : Invalid response from OCSP server.");
    setAside(state->place, Reason::kNotSuccessful, OCSP_response_status_str(response.status()));
    return kNoAnswer;
  }

  settled = true;
  const BasicResponse basic(response);
  // 4.4.1: the nonce is that of the request. An answer without one passes: it is meant so.
  if (!basic.matches(request)) {
    log(kPriorityDebug, "OCSP::Client. OCSP Response does not match the request");
    setAside(state->place, Reason::kOtherNonce);
    return kNoAnswer;
  }
  RefCertificate responder;
  if (const int refused = judge(basic, responder); refused != kGood) return refused;
  // 3.2, 1: the answer is about the certificate that was asked about. One that does not mention it
  // counts as good: it is meant so. So it is that thisUpdate and nextUpdate, 3.2, 5 and 6, are not
  // compared with the clock.
  const Response::Status status = response.find(basic, request.id());
  noteStatus(state->place, responder, status);
  if (status.status == V_OCSP_CERTSTATUS_REVOKED) {
    logMisplaced(certificateText(certificate) +
                 " is revoked: " + OCSP_crl_reason_str(status.reason));
  }
  return status.status;
}

int Client::isSignatureValid(const Response& /*response*/, const BasicResponse& basic) {
  RefCertificate responder;
  return judge(basic, responder);
}

// Sets the certificate of who signed the answer, where there is one.
int Client::judge(const BasicResponse& basic, RefCertificate& responder) {
  OCSP_BASICRESP* const native = basic;
  if (native == nullptr) {
    setAside(state->place, Reason::kMalformed, "there is no basic response in it");
    return kNoAnswer;
  }

  const ASN1_OCTET_STRING* keyHash = nullptr;
  const X509_NAME* name = nullptr;
  bool cameWithAnswer = false;
  // 3.2, 3: who is to answer at a URI is not known beforehand; the signer is whom the answer names.
  if (OCSP_resp_get0_id(native, &keyHash, &name) == 1 && name != nullptr) {
    responder = findResponder(DistinguishedName(name), basic, chain, cameWithAnswer);
  } else if (keyHash != nullptr) {
    responder = findResponder(ASN1::RefOctetString(keyHash), basic, chain, cameWithAnswer);
  } else {
    // OpenSSL has no name for the type of an identifier that is neither.
    fail({"Client::isSignatureValid", "OCSP"}, "OCSP response identifier not supported: -1");
  }
  if (responder.empty()) {
    setAside(state->place, Reason::kSignerUnknown);
    return kResponderUnknown;
  }

  // 3.2, 4: the signer may speak about this certificate. Of the criteria of 4.2.2.2 the second,
  // the issuing CA, is widened to every certificate of the chain. In the place of the third, a
  // delegate of that CA with id-kp-OCSPSigning, stands whatever validates against the store. Its
  // own revocation (4.2.2.2.1) is not checked, with id-pkix-ocsp-nocheck or without. It is meant
  // so.
  const bool inChain = std::find(chain.begin(), chain.end(), responder) != chain.end();
  if (cameWithAnswer && !inChain && !validate(responder)) {
    log(kPriorityInfo, "OCSP::Client: Could not validate Responder's certificate.");
    const std::shared_ptr<const LeftBehind> left = OutcomeRecord::take();
    if (left != nullptr) state->take(left->evidence.sources);
    setAside(state->place, reasonAgainstSigner(left.get()), {},
             {.certificate = responder, .verification = left});
    return kResponderNotValid;
  }

  // 3.2, 2: the signature is valid.
  const RefKey key = responder->key();
  const ErrorScope errors;
  if (ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA), OCSP_resp_get0_tbs_sigalg(native),
                       OCSP_resp_get0_signature(native), OCSP_resp_get0_respdata(native),
                       key->keyData()) < 1) {
    log(kPriorityInfo, "OCSP::Client: Response Signature check failed.");
    setAside(state->place, Reason::kWrongSignature, {}, {.certificate = responder});
    return kSignatureWrong;
  }
  return kGood;
}

// Verifies a responder's certificate that is in the answer only. The store is cloned, so that
// nothing of it stays in the outer one.
bool Client::validate(const RefCertificate& responder) {
  const OwnRecord::Pause pause(state->record);  // it has bounds of its own
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
  OutcomeRecord::take();  // of another one before
  return nested.isValid() == X509_V_OK;
}

}  // namespace Velantrix::Crypto::PKX509::OCSP
