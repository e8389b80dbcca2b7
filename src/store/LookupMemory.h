// What one verification has looked up: each source is asked once for equal names, and what it answered
// is shared.
//
//   askOnce(&method, name, out, [&](auto& found) {
//     method.getBySubject(name, found);
//     return true;
//   });
//
// A stranger's certificate may name one CRL of some megabytes a hundred times. Asking costs a scan of
// a directory or an exchange with a server, and each answer would be decoded and kept again. Outside
// a verification nothing is remembered. What was asked for an answer is told of the answer from memory
// too, in the `SourceRecord`.
#pragma once

#include "foundation/run/VerificationRun.h"
#include "report/SourceRecord.h"

#include <cstddef>
#include <list>
#include <string>

namespace Velantrix::Crypto::PKX509 {

class LookupMethod;

// Who is asked: a lookup method, which outlives the verification and is only compared, or a place by
// its name.
struct LookupSource {
  LookupSource(const LookupMethod* asked) : method(asked) {}
  LookupSource(const char* name) : place(name) {}
  LookupSource(const std::string& name) : place(name) {}

  bool operator==(const LookupSource& other) const = default;

  const LookupMethod* method = nullptr;
  std::string place;
};

// The answers of one outermost run, a handful up to some hundreds: names are only told apart by
// comparing them.
template <class Name, class Handle>
class LookupMemory {
 public:
  struct Answer {
    LookupSource source;
    Name name;
    std::list<Handle> found;
    SourceRecord::Stretch asked;
  };

  // Null when the source has not answered for the name yet.
  const Answer* recall(const LookupSource& source, const Name& name) const {
    for (const Answer& answer : answers_) {
      if (answer.source == source && answer.name == name) return &answer;
    }
    return nullptr;
  }
  void remember(const LookupSource& source, const Name& name, const std::list<Handle>& found,
                const SourceRecord::Stretch& asked) {
    answers_.push_back({source, name, found, asked});
  }

 private:
  std::list<Answer> answers_;
};

// Appends what the source has answered for the name in this verification; false when it has not been
// asked yet.
template <class Name, class Handle>
bool recallAnswer(const LookupSource& source, const Name& name, std::list<Handle>& out) {
  const auto* const memory = VerificationRun::kept<LookupMemory<Name, Handle>>();
  const auto* const known = memory == nullptr ? nullptr : memory->recall(source, name);
  if (known == nullptr) return false;
  SourceRecord::again(known->asked);
  out.insert(out.end(), known->found.begin(), known->found.end());
  return true;
}

// Appends what the source has under the name. `query` is called with an empty list and says whether
// what it found is the answer for the rest of the verification; what it throws is thrown on, and then
// nothing is remembered.
template <class Name, class Handle, class Query>
void askOnce(const LookupSource& source, const Name& name, std::list<Handle>& out,
             const Query& query) {
  if (recallAnswer(source, name, out)) return;
  std::list<Handle> found;
  const std::size_t before = SourceRecord::reached();
  const bool settled = query(found);
  auto* const memory = VerificationRun::kept<LookupMemory<Name, Handle>>();
  if (settled && memory != nullptr) {
    memory->remember(source, name, found, {before, SourceRecord::reached()});
  }
  out.splice(out.end(), found);
}

}  // namespace Velantrix::Crypto::PKX509
