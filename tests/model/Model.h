// The reference: what a verification has to answer, worked out from the description of a PKI.
//
//   Model model(pki);
//   for (const Query& query : pki.queries) {
//     const Outcome outcome = model.verify(query);   // code, depth, log lines
//   }
//   for (const HandOut& crl : Model(pki).handOuts(target)) ...
//
// Slow and obvious on purpose. It follows OpenSSL's order (path, extensions, revocation, signatures
// from the root down, each with its times) and has no parser, no cache and no OpenSSL object. One
// model stands for one store and remembers what the store does: the flags that verifications left
// there and the issuers that were found.
#pragma once

#include "model/Description.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Test::Random {

struct Outcome {
  int code = 0;
  int depth = 0;                      ///< where it failed; means nothing when the code is 0
  std::vector<std::string> log = {};  ///< "priority text"

  bool operator==(const Outcome& other) const {
    return code == other.code && (code == 0 || depth == other.depth) && log == other.log;
  }
};

/// A CRL as a container hands it to OpenSSL.
struct HandOut {
  int crl = 0;
  int issuer = 0;
  unsigned score = 0;
  unsigned reasons = 0;

  bool operator==(const HandOut&) const = default;
};

/// What is gathered for one certificate, handed out until there is no more.
struct HandOuts {
  std::vector<HandOut> crls = {};
  int error = 0;  ///< of the context, which gathering alone can set
  std::vector<std::string> log = {};

  bool operator==(const HandOuts&) const = default;
};

class Model {
 public:
  explicit Model(const Description& pki);

  Outcome verify(const Query& query);
  HandOuts handOuts(int certificate);

  /// What was decided on the way, to be read when the library disagrees.
  const std::vector<std::string>& trace() const { return trace_; }
  /// The rules that decided something, by name.
  const std::set<std::string>& rules() const { return rules_; }

 private:
  static constexpr int kNothing = -1;

  /// A store: its object list and the flags that stay in it. Sources and directory are shared.
  struct Store {
    std::vector<int> objects;
    int flags = 0;
  };
  /// The outermost verification and all that are nested in it.
  struct Run {
    std::vector<int> targets = {};
    int nested = 0;
    int lookUps = 0;
    bool saidTooMany = false;
    bool bounded = true;  ///< not outside of a verification
  };
  struct Context {
    Store& store;
    Run& run;
    int target;
    std::vector<int> untrusted;
    int moment;  ///< in half days
    int flags = 0;
    std::vector<int> chain = {};
    std::size_t fromPeer = 0;  ///< how many of the chain's first are not from the store
    int error = 0;
    int depth = 0;
  };
  struct Candidate {
    int certificate;
    int crl;
    int issuer;
    const PointDescription* point;
    unsigned reasons;
    unsigned score;
    bool rejected;
  };
  struct Container {
    std::vector<Candidate> entries = {};
    bool hasDelta = false;
    enum { Unknown, Incomplete, Complete } chain = Unknown;
  };
  struct Authority {
    bool present = false;
    std::optional<int> keyId = {};
    std::optional<int> serial = {};
    std::optional<Name> issuer = {};
  };

  const CertificateDescription& cert(int index) const;
  const CRLDescription& crl(int index) const;
  const Name& subject(int certificate) const { return cert(certificate).subject; }
  const Name& issuerName(int certificate) const;
  const Name& crlIssuerName(int index) const { return subject(crl(index).issuer); }
  std::optional<int> subjectKeyId(int certificate) const;
  Authority authority(KeyId which, int issuer) const;
  Authority authority(int certificate) const;
  bool matches(int candidate, const Authority& authority) const;
  bool likelyIssued(int issuer, int certificate) const;
  bool allows(int certificate, int usage) const;
  bool isSelfSigned(int certificate) const;
  bool inTime(int certificate, int moment) const;

  // OpenSSL's part.
  int run(Context& context);
  int leaveUnsettled(Context& context);
  bool fail(Context& context, int code, int depth);
  bool buildChain(Context& context);
  int trustedIssuer(const Context& context, int certificate) const;
  int untrustedIssuer(const Context& context, const std::vector<int>& left, int certificate) const;
  bool checkExtensions(Context& context);
  bool checkSignaturesAndTimes(Context& context);

  // Which certificates are checked.
  bool checkRevocation(Context& context);
  bool checkRevocationStatus(Context& context, const std::vector<int>& chain);

  // Which CRLs there are.
  void getCRLs(Context& context, int certificate, Container& container);
  void addCandidate(Context& context, int certificate, int crl, const PointDescription* point,
                    Container& container);
  bool mayLookUp(Run& run);
  std::vector<int> fromCRLDirectory(Run& run, const Name& issuer);
  void find(Run& run, const Name& issuer, std::vector<int>& out);
  void find(Run& run, const General& name, std::vector<int>& out);
  std::vector<int> find(Run& run, int certificate, const PointDescription& point);
  int findIssuer(Store& store, int crl, unsigned& score);
  bool passes(int crl, int candidate, unsigned& score) const;

  // What they say.
  void add(Context& context, Container& container, Candidate entry);
  void tallyScore(Context& context, Candidate& entry);
  void checkScope(Candidate& entry);
  bool isDeltaChainComplete(Container& container);
  void extendedChecks(Context& context, Container& container, const std::vector<int>& chain);
  bool checkEntry(Context& context, const Container& container, const Candidate& entry,
                  const std::vector<int>& chain);
  int validate(Context& outer, int issuer, const std::vector<int>& chain);
  int isRevoked(Container& container);
  std::optional<int> lookUp(int crl, int certificate) const;

  void say(int priority, const std::string& line);
  void note(const std::string& line) { trace_.push_back(line); }
  void rule(const std::string& name);
  std::string failureLine(int certificate, int code) const;

  const Description& pki_;
  Store store_;
  std::vector<std::string> log_;
  std::vector<std::string> trace_;
  std::set<std::string> rules_;
};

}  // namespace Velantrix::Test::Random
