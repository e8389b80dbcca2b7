#include "foundation/net/ldap/LDAPResult.h"

#include "foundation/base/Fail.h"

#include <memory>

namespace Velantrix {

namespace {

// About what an attribute or a value costs beside its octets.
constexpr std::size_t kOverhead = 128;

struct FreeBer {
  // The octets belong to the message.
  void operator()(BerElement* ber) const noexcept { ber_free(ber, 0); }
};

constexpr Origin kHere{"LDAPResult", "LDAPResult"};
constexpr const char* kMalformed = "A search result entry is malformed.";

// Takes the cost of some octets from the budget. False when it does not suffice.
bool spend(std::size_t& budget, std::size_t octets) {
  const std::size_t cost = octets + kOverhead;
  if (cost > budget) return false;
  budget -= cost;
  return true;
}

std::string textOf(const berval& octets) { return std::string(octets.bv_val, octets.bv_len); }

bool atEnd(BerElement* ber) {
  ber_len_t left = 0;
  if (ber_get_option(ber, LBER_OPT_BER_REMAINING_BYTES, &left) != LBER_OPT_SUCCESS) {
    fail(kHere, kMalformed);
  }
  return left == 0;
}

// The values are read one by one where they are: libldap's functions for whole attributes would
// first make a list of them, which for values of no octets is many times as long as the message.
bool readValues(BerElement* ber, LDAPAttribute& attribute, std::size_t& budget) {
  ber_len_t length = 0;
  char* end = nullptr;
  ber_tag_t tag = ber_first_element(ber, &length, &end);
  for (; tag != LBER_DEFAULT; tag = ber_next_element(ber, &length, end)) {
    berval value{};
    if (ber_scanf(ber, "m", &value) == LBER_ERROR) fail(kHere, kMalformed);
    if (!spend(budget, value.bv_len)) return false;
    attribute.add(Buffer(value.bv_val, static_cast<unsigned int>(value.bv_len), true));
  }
  return true;
}

// RFC 4511, 4.5.2: PartialAttributeList ::= SEQUENCE OF SEQUENCE { type, vals SET OF value }
bool readAttributes(BerElement* ber, LDAPAttributeContainer& attributes, std::size_t& budget) {
  while (!atEnd(ber)) {
    berval type{};
    if (ber_scanf(ber, "{m", &type) == LBER_ERROR) fail(kHere, kMalformed);
    if (!spend(budget, type.bv_len)) return false;
    if (!readValues(ber, attributes.add(LDAPAttributeType(textOf(type))), budget)) return false;
  }
  return true;
}

}  // namespace

LDAPSearchResultEntry::LDAPSearchResultEntry(LDAP* ldap, LDAPMessage* message,
                                             std::size_t& budget) {
  BerElement* made = nullptr;
  berval name{};
  const int status = ldap_get_dn_ber(ldap, message, &made, &name);
  const std::unique_ptr<BerElement, FreeBer> ber(made);
  if (status != LDAP_SUCCESS || made == nullptr) fail(kHere, kMalformed);
  complete_ = spend(budget, name.bv_len);
  if (!complete_) return;
  name_ = textOf(name);
  complete_ = readAttributes(made, attributes_, budget);
}

}  // namespace Velantrix
