/// @file
/// The online certificate status protocol (RFC 6960): its messages, and a client that asks a
/// responder about one certificate.
///
/// @code
///   OCSP::Client client(verifier, chain);                // chain: leaf first, issuers after it
///   if (client.connect(Uri("http://ocsp.example/"))) {
///     const int answer = client.isRevoked(chain.front());
///     if (answer != OCSP::kGood && answer != OCSP::kRevoked) ...   // no usable answer
///   }
///   std::cerr << client.report().line() << '\n';                   // why
/// @endcode
///
/// **Who judges what.** The messages are read and written by OpenSSL. They judge no times:
/// thisUpdate and nextUpdate of an answer are carried and not compared with the clock. An answer is
/// fresh because it repeats the nonce of the request; a responder that leaves the nonce out is
/// believed all the same.
#pragma once

#include <pkx509/VerificationReport.h>
#include <velantrix/ASN1.h>
#include <velantrix/Certificate.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Export.h>
#include <velantrix/HTTP.h>
#include <velantrix/LWBuffer.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Uri.h>

#include <openssl/ocsp.h>

#include <cstdint>
#include <list>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

class Verifier;

namespace OCSP {

class BasicResponse;

/// What `Client::isRevoked()`, `Client::isSignatureValid()` and `Verifier::checkOCSP()` answer. It
/// is returned as an int.
enum Answer : int {
  kGood = 0,                 ///< not revoked, or not mentioned; the signature is acceptable
  kRevoked = 1,              ///< revoked
  kNoAnswer = 2,             ///< no usable answer, for whatever reason, or the status "unknown"
  kResponderNotValid = 101,  ///< the certificate of the responder does not validate
  kSignatureWrong = 117,     ///< the answer is not signed with the responder's key
  kResponderUnknown = 118    ///< no certificate fits the responder's identifier
};

/// Names the certificate that is asked about: hashes of its issuer's name and key, and its serial
/// number (RFC 6960, 4.1.1). Used by one thread at a time, as all classes here.
class PKX509_EXPORT ID : private NonCopyable {
 public:
  /// @param owns whether the destructor frees the identifier; false leaves it to whoever it is
  ///             given to
  /// @throws Exception for an empty handle, and when OpenSSL cannot make the identifier
  ID(const RefCertificate& certificate, const RefCertificate& issuer, bool owns);
  /// Wraps an identifier that stays somebody else's; borrowed.
  explicit ID(OCSP_CERTID* id) noexcept : certId(id), ownsCertId(false) {}
  virtual ~ID();

  void relinquishOwnerShip() noexcept { ownsCertId = false; }

  /// Borrowed.
  operator ocsp_cert_id_st*() const noexcept { return certId; }

 private:
  OCSP_CERTID* certId;
  bool ownsCertId;
};

/// A request about one certificate, with a nonce of OpenSSL's default length.
class PKX509_EXPORT Request : private NonCopyable {
 public:
  /// @throws Exception as `ID` does
  Request(const RefCertificate& certificate, const RefCertificate& issuer);
  virtual ~Request();

  /// Borrowed.
  operator ocsp_request_st*() const noexcept { return request.get(); }
  /// The identifier in the request; lives as long as the request.
  const ID& id() const noexcept { return certificateId; }

  /// The DER form, made on the first call. The buffer may outlive the request.
  /// @throws Exception "OCSP::Request" with "Buffer overflow" when it is longer than 4096 bytes or
  ///         OpenSSL cannot encode it, and with "Encode failed." when there is nothing to encode
  const LW::RefBuffer& pdu() const;

 private:
  struct PKX509_EXPORT Release {
    void operator()(OCSP_REQUEST* object) const noexcept;
  };

  std::unique_ptr<OCSP_REQUEST, Release> request;
  ID certificateId;
  mutable LW::RefBuffer pduBuffer;
};

/// What a responder sent.
class PKX509_EXPORT Response : private NonCopyable {
 public:
  /// What it says about one certificate. A plain value.
  struct Status {
    int status = V_OCSP_CERTSTATUS_GOOD;  ///< `V_OCSP_CERTSTATUS_*`
    int reason = 0;  ///< why it was revoked, as in CRLs; -1 when that was not said
    ASN1::RefGeneralizedTime revocationTime;
    ASN1::RefGeneralizedTime thisUpdate;
    ASN1::RefGeneralizedTime nextUpdate;
  };

  /// Decodes @p bytes, which are not needed afterwards. No bytes make an empty response, whose
  /// status reads as successful and which holds no answer.
  /// @throws Exception "OCSP::Response" with "Decode failed."
  explicit Response(const LW::Buffer& bytes);
  virtual ~Response();

  /// Borrowed.
  operator ocsp_response_st*() const noexcept { return response.get(); }

  /// The status of the certificate @p id in @p basic. **A certificate that the answer does not
  /// mention has the status good**, like all values of a default `Status`: a responder that knows
  /// nothing against it has not revoked it.
  Status find(const BasicResponse& basic, const ID& id) const;

  /// `OCSP_RESPONSE_STATUS_*`: whether the responder could answer at all.
  int status() const noexcept { return responseStatus; }

 private:
  struct PKX509_EXPORT Release {
    void operator()(OCSP_RESPONSE* object) const noexcept;
  };

  std::unique_ptr<OCSP_RESPONSE, Release> response;
  int responseStatus = OCSP_RESPONSE_STATUS_SUCCESSFUL;
};

/// The signed part of a response, which is independent of the response it was taken from.
class PKX509_EXPORT BasicResponse : private NonCopyable {
 public:
  /// A response without a basic response makes an object that holds none.
  explicit BasicResponse(const Response& response);
  virtual ~BasicResponse();

  /// Borrowed; null when there is none.
  operator ocsp_basic_response_st*() const noexcept { return basic.get(); }

  /// False only when request and response carry different nonces (RFC 6960, 4.4.1), which is
  /// logged.
  bool matches(const Request& request) const;

  /// The certificates that came with the answer, in their order; trusted by nobody yet.
  const std::list<RefCertificate>& certificates() const;

 private:
  struct PKX509_EXPORT Release {
    void operator()(OCSP_BASICRESP* object) const noexcept;
  };

  std::unique_ptr<OCSP_BASICRESP, Release> basic;
  mutable std::list<RefCertificate> certificateCache;
};

/// The first certificate whose subject key identifier is @p keyHash; empty when there is none. The
/// hash is held against that extension and not computed from keys, so a certificate without the
/// extension is never found.
PKX509_EXPORT RefCertificate s_findIssuer(const ASN1::RefOctetString& keyHash,
                                          const std::list<RefCertificate>& certificates);
/// The first certificate with the subject @p name; empty when there is none.
PKX509_EXPORT RefCertificate s_findIssuer(const DistinguishedName& name,
                                          const std::list<RefCertificate>& certificates);

/// Asks one responder, over HTTP/1.0 and plain TCP or TLS.
///
/// **Who may answer.** A responder whose certificate is in the chain is trusted. One that is only
/// in the answer is verified against a clone of the verifier's store, without a revocation check;
/// the certificate need not carry id-kp-OCSPSigning (RFC 6960, 4.2.2.2), so **whoever holds a
/// certificate that validates against the store can answer for every other**. The https server is
/// not verified: trust is in the signature of the answer.
///
/// **Ports.** Without one in the URI it is 80, for https too.
///
/// **Bounds.** 5 s to resolve the host, 10 s to connect, 30 s for request and answer unless
/// `maxQueryTime()` says otherwise, 1 MiB for an answer; inside a verification its limits for the
/// network as well.
///
/// Used by one thread at a time.
class PKX509_EXPORT Client : private NonCopyable {
 public:
  /// @param verifier who asks; gives the store and the context that a nested verification names as
  ///                 its parent. Borrowed.
  /// @param chain    where the issuer, and the responder's certificate, are looked for. Borrowed
  ///                 for the client's lifetime.
  Client(Verifier& verifier, const std::list<RefCertificate>& chain);
  virtual ~Client();

  /// Bounds each query, in seconds; 0 leaves it to the connection.
  void maxQueryTime(unsigned int seconds) noexcept { queryTime = seconds; }

  /// Connects to a responder. A second call with an equal URI keeps the first connection, and keeps
  /// failing when that one failed.
  /// @return whether a connection stands; a failure is logged
  /// @throws boost::system::system_error when the client certificate or key of an https URI cannot
  ///         be loaded
  bool connect(const Uri& uri);

  /// Asks about @p certificate, by each certificate of the chain that may have issued it, until one
  /// question has a verdict.
  /// @return an `Answer`: what the responder says, `kNoAnswer`, or what `isSignatureValid()`
  ///         returned when that is not `kGood`
  int isRevoked(const RefCertificate& certificate);

  /// Whether an acceptable responder signed the answer.
  /// @return an `Answer`: `kGood` when one did, `kNoAnswer` when there is no basic response,
  ///         `kResponderNotValid`, `kSignatureWrong` or `kResponderUnknown`
  /// @throws Exception for an identifier of an unknown type
  int isSignatureValid(const Response& response, const BasicResponse& basic);

  /// What the last `connect()` that failed, or the last `isRevoked()` on a connection, found out, in
  /// the words of a verification's report. After `isRevoked()` its `code()` is 0 for `kGood`,
  /// `X509_V_ERR_CERT_REVOKED` for `kRevoked`, `X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY` where
  /// no certificate of the chain may have issued the one that was asked about, and
  /// `X509_V_ERR_UNABLE_TO_GET_CRL` else, as after a `connect()` that failed. Its path is the
  /// certificate that was asked about, without one after `connect()`; no path was verified.
  ///
  /// It is the report on nothing before the first question, after a `connect()` that did not fail, and
  /// on what was asked within a verification, whose own report has it.
  VerificationReport report() const;

 private:
  struct State;

  bool connectTo(const Uri& responder);
  int ask(const RefCertificate& certificate, bool& issuerKnown);
  int query(const RefCertificate& certificate, const RefCertificate& issuer, bool& settled);
  int judge(const BasicResponse& basic, RefCertificate& responder);
  bool validate(const RefCertificate& responder);

  Verifier& verifier;
  const std::list<RefCertificate>& chain;
  bool connected = false;
  Uri uri;
  std::uint32_t queryTime = 0;
  LW::HTTP::RefConnection connection;
  std::unique_ptr<State> state;
};

}  // namespace OCSP
}  // namespace Velantrix::Crypto::PKX509
