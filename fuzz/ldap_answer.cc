// What an LDAP server sends: octets, whatever they are, where a client waits for an answer. Choices
// stand in front of them: whether the client binds first or asks for StartTLS, and how often the
// server says its first message.
//
// A plain reading of RFC 4511 says what the client has to make of an answer that is well-formed, or
// ends too early. It has no opinion on others: libldap is not strict.
#include "Fuzz.h"
#include "LDAPServer.h"
#include "foundation/net/ldap/LDAPSearch.h"
#include "integration/LDAPPeer.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Fuzz::LDAPAnswerTarget {
namespace {

using Test::Attributes;

constexpr std::size_t kMostOctets = std::size_t{512} * 1024;
constexpr std::size_t kOverhead = 128;  // what an attribute or a value costs beside its octets

// Takes the cost of some octets; false when there is not enough left.
bool spend(std::size_t& budget, std::size_t octets) {
  if (budget < octets + kOverhead) return false;
  budget -= octets + kOverhead;
  return true;
}

// Reads an answer as the client ought to.
class Reader {
 public:
  enum class Verdict { Unknown, Refused, Taken, TakenInPart };

  explicit Reader(std::string_view answer) : left_(answer) {}

  Verdict bind(int id) {
    std::size_t budget = LDAPRequest::kMaximumSize;
    for (;;) {
      std::string_view operation;
      const Verdict verdict = message(id, budget, operation);
      if (verdict == Verdict::TakenInPart) return Verdict::Refused;  // half a bind is none
      if (verdict != Verdict::Taken) return verdict;
      const unsigned char tag = berFront(operation)->tag;
      if (tag == LDAP_RES_INTERMEDIATE) continue;
      if (tag != LDAP_RES_BIND) return Verdict::Refused;
      const int code = resultCode(operation, tag);
      if (code < 0) return Verdict::Unknown;
      return code == LDAP_SUCCESS ? Verdict::Taken : Verdict::Refused;
    }
  }

  Verdict search(int id, std::vector<Attributes>& entries) {
    std::size_t unread = LDAPRequest::kMaximumSize;
    std::size_t unkept = LDAPRequest::kMaximumSize;
    for (;;) {
      std::string_view operation;
      const Verdict verdict = message(id, unread, operation);
      if (verdict != Verdict::Taken) return verdict;
      switch (berFront(operation)->tag) {
        case LDAP_RES_SEARCH_ENTRY: {
          if (entries.size() == LDAPRequest::kMaximumEntries) return Verdict::TakenInPart;
          bool complete = true;
          std::optional<Attributes> attributes = entry(operation, unkept, complete);
          if (!attributes) return Verdict::Unknown;
          if (!complete) return Verdict::TakenInPart;
          entries.push_back(std::move(*attributes));
          break;
        }
        case LDAP_RES_SEARCH_REFERENCE:
        case LDAP_RES_INTERMEDIATE:
          break;
        case LDAP_RES_SEARCH_RESULT:
          return judge(resultCode(operation, LDAP_RES_SEARCH_RESULT));
        default:
          return Verdict::Refused;
      }
    }
  }

 private:
  // The next message's operation: one element, whole and alone.
  Verdict message(int id, std::size_t& budget, std::string_view& operation) {
    if (!left_.empty() && left_.front() != '\x30') return Verdict::Refused;
    const std::optional<Tlv> front = berFront(left_);
    if (!front) return Verdict::Refused;  // it ends, or the length is none that LDAP has
    if (front->head + front->length > budget) return Verdict::TakenInPart;
    if (!front->whole()) return Verdict::Refused;
    budget -= front->head + front->content.size();
    left_.remove_prefix(front->head + front->content.size());

    operation = front->content;
    const std::optional<std::string_view> number = berTake(operation, LDAP_TAG_MSGID);
    if (!number || number->empty() || number->size() > 4) return Verdict::Refused;
    if (number->size() > 1) return Verdict::Unknown;
    if (number->front() != static_cast<char>(id)) return Verdict::Refused;
    const std::optional<Tlv> element = berFront(operation);
    if (!element || !element->whole()) return Verdict::Refused;
    const bool alone = element->head + element->content.size() == operation.size();
    return alone ? Verdict::Taken : Verdict::Unknown;
  }

  // Nothing when it is not well-formed. What is beyond the budget is not looked at.
  static std::optional<Attributes> entry(std::string_view operation, std::size_t& budget,
                                         bool& complete) {
    std::string_view parts = *berTake(operation, LDAP_RES_SEARCH_ENTRY);
    const std::optional<std::string_view> name = berTake(parts, LBER_OCTETSTRING);
    std::optional<std::string_view> list = berTake(parts, LBER_SEQUENCE);
    if (!name || !list || !parts.empty()) return std::nullopt;
    Attributes attributes;
    complete = spend(budget, name->size());
    while (complete && !list->empty()) {
      std::optional<std::string_view> attribute = berTake(*list, LBER_SEQUENCE);
      if (!attribute) return std::nullopt;
      const std::optional<std::string_view> type = berTake(*attribute, LBER_OCTETSTRING);
      std::optional<std::string_view> values = berTake(*attribute, LBER_SET);
      if (!type || !values || !attribute->empty()) return std::nullopt;
      complete = spend(budget, type->size());
      attributes.emplace_back(*type, std::vector<std::string>());
      while (complete && !values->empty()) {
        const std::optional<std::string_view> value = berTake(*values, LBER_OCTETSTRING);
        if (!value) return std::nullopt;
        complete = spend(budget, value->size());
        attributes.back().second.emplace_back(*value);
      }
    }
    return attributes;
  }

  // -1 when it is not well-formed, and for codes that nobody has defined. libldap takes no text
  // with a NUL.
  static int resultCode(std::string_view operation, unsigned char tag) {
    std::optional<std::string_view> parts = berTake(operation, tag);
    if (!parts) return -1;
    const std::optional<std::string_view> code = berTake(*parts, LBER_ENUMERATED);
    const std::optional<std::string_view> name = berTake(*parts, LBER_OCTETSTRING);
    const std::optional<std::string_view> said = berTake(*parts, LBER_OCTETSTRING);
    if (!code || code->size() != 1 || !name || !said || !parts->empty()) return -1;
    if (name->find('\0') != name->npos || said->find('\0') != said->npos) return -1;
    return static_cast<signed char>(code->front());
  }

  static Verdict judge(int code) {
    if (code < 0) return Verdict::Unknown;
    const int taken[] = {LDAP_SUCCESS,
                         LDAP_NO_SUCH_OBJECT,
                         LDAP_TIMELIMIT_EXCEEDED,
                         LDAP_SIZELIMIT_EXCEEDED,
                         LDAP_ADMINLIMIT_EXCEEDED,
                         LDAP_REFERRAL,
                         LDAP_INVALID_DN_SYNTAX};
    const bool known = std::find(std::begin(taken), std::end(taken), code) != std::end(taken);
    return known ? Verdict::Taken : Verdict::Refused;
  }

  std::string_view left_;
};

using Verdict = Reader::Verdict;

std::string textOf(const Buffer& value) { return text(value.data(), value.length()); }

std::vector<Attributes> entriesOf(const LDAPResult& result) {
  std::vector<Attributes> entries;
  for (const LDAPSearchResultEntry& entry : result.searchResultEntries()) {
    PKX509_ASSERT(entry.complete());
    PKX509_ASSERT(entry.attributes().empty() == entry.attributes().attributes().empty());
    Attributes& attributes = entries.emplace_back();
    for (const LDAPAttribute& attribute : entry.attributes().attributes()) {
      attributes.emplace_back(attribute.type().name(), std::vector<std::string>());
      for (const Buffer& value : attribute.binaryValue()) {
        attributes.back().second.push_back(textOf(value));
      }
    }
  }
  return entries;
}

// Holds for every answer, also for what was taken of one that was refused in the end.
void checkBounds(const std::vector<Attributes>& entries, std::string_view answer) {
  PKX509_ASSERT(entries.size() <= LDAPRequest::kMaximumEntries);
  std::size_t budget = LDAPRequest::kMaximumSize;
  std::size_t looks = 64;
  const auto check = [&](const std::string& octets) {
    PKX509_ASSERT(spend(budget, octets.size()));
    if (looks == 0) return;
    --looks;
    PKX509_ASSERT(answer.find(octets) != std::string_view::npos);
  };
  for (const Attributes& attributes : entries) {
    for (const auto& [type, values] : attributes) {
      check(type);
      for (const std::string& value : values) check(value);
    }
  }
}

bool search(LDAPConnection& connection, std::string_view answer, std::vector<Attributes>& entries) {
  return accepted([&] {
    LDAPSearch search(connection, LDAPSearch::Parameter("o=Test"));
    search.send();
    const bool done = ran([&] { search.wait(std::chrono::seconds(20)); });
    entries = entriesOf(search.result());
    checkBounds(entries, answer);
    if (!done) throw Exception("refused", Exception::kFailure, "ldap_answer", __LINE__);
  });
}

void ask(std::string_view answer, bool bindFirst) {
  Reader reader(answer);
  LDAPConnection connection(ldapServer().server(), false);
  int id = 0;
  Verdict verdict = Verdict::Taken;
  if (bindFirst) {
    verdict = reader.bind(++id);
    const bool bound = accepted([&] { connection.bind("", "", LDAPConnection::BindSimple); });
    if (verdict != Verdict::Unknown) PKX509_ASSERT(bound == (verdict == Verdict::Taken));
    if (!bound) verdict = Verdict::Refused;
  }
  // Some more searches on the same connection, while it can be used.
  std::vector<Attributes> entries;
  for (int left = 3; left > 0 && verdict == Verdict::Taken; --left) {
    std::vector<Attributes> expected;
    verdict = reader.search(++id, expected);
    const bool done = search(connection, answer, entries);
    if (verdict == Verdict::Unknown) {
      if (!done) verdict = Verdict::Refused;
    } else {
      PKX509_ASSERT(done == (verdict != Verdict::Refused));
      PKX509_ASSERT(!done || entries == expected);
    }
  }
  if (verdict == Verdict::Refused || verdict == Verdict::TakenInPart) {
    PKX509_ASSERT(!search(connection, answer, entries));  // the session is closed
  }
}

std::string withFirstRepeated(std::string_view answer, std::size_t times) {
  std::string repeated;
  const std::optional<Tlv> front = berFront(answer);
  if (front && front->whole()) {
    const std::string_view first = answer.substr(0, front->head + front->content.size());
    for (; times > 1 && repeated.size() + first.size() + answer.size() <= kMostOctets; --times) {
      repeated += first;
    }
  }
  return repeated.append(answer);
}

// How often the first message is said. An answer that reaches a limit takes long, and so one change
// in 256 may lead to another: the last choice has to be the sum of what follows.
std::size_t timesOf(const Choices& choices, std::string_view input) {
  unsigned int sum = 0;
  for (const char c : input) sum += static_cast<unsigned char>(c);
  return choices[2] == (sum & 0xffU) ? std::size_t{1} << choices[1] % 12 : 1;
}

}  // namespace

PKX509_FUZZ_TARGET(ldap_answer) {
  begin();
  const std::string octets = text(data, std::min(size, kMostOctets));
  std::string_view input = octets;
  const Choices choices(input);
  const std::string answer = withFirstRepeated(input, timesOf(choices, input));
  ldapServer().answer(answer);
  // Of the first choice the lowest bit stands for a bind, both for StartTLS.
  if (choices[0] % 4 == 3) {
    // Nobody's TLS works that did not see the client's first message.
    PKX509_ASSERT(!accepted([&] { LDAPConnection(ldapServer().server(true), true); }));
  } else {
    ask(answer, choices[0] % 4 == 1);
  }
  return 0;
}

}  // namespace Velantrix::Fuzz::LDAPAnswerTarget
