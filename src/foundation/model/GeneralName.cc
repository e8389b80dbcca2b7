#include "foundation/model/GeneralNames.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/GeneralName.h>

#include <algorithm>
#include <new>
#include <set>
#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

DistinguishedName directoryName(const GENERAL_NAME* name) {
  if (name->type != GEN_DIRNAME) return DistinguishedName();
  return DistinguishedName(name->d.directoryName);
}

Uri uniformResourceIdentifier(const GENERAL_NAME* name) {
  if (name->type != GEN_URI) return Uri();
  const ASN1_IA5STRING* text = name->d.uniformResourceIdentifier;
  const unsigned char* data = ASN1_STRING_get0_data(text);
  return Uri(std::string(data, data + ASN1_STRING_length(text)));
}

// An order of general names: 0 exactly where GENERAL_NAME_cmp says 0, which by itself only tells
// same from different when the types differ.
int order(const ASN1_TYPE* a, const ASN1_TYPE* b) {
  if (a->type != b->type) return a->type - b->type;
  switch (a->type) {
    case V_ASN1_NULL:
      return 0;
    case V_ASN1_BOOLEAN:
      return a->value.boolean - b->value.boolean;
    case V_ASN1_OBJECT:
      return OBJ_cmp(a->value.object, b->value.object);
    default:
      return ASN1_STRING_cmp(a->value.asn1_string, b->value.asn1_string);
  }
}

int order(const ASN1_STRING* a, const ASN1_STRING* b) {
  if (a == nullptr || b == nullptr) return (a != nullptr ? 1 : 0) - (b != nullptr ? 1 : 0);
  return ASN1_STRING_cmp(a, b);
}

int order(const GENERAL_NAME* a, const GENERAL_NAME* b) {
  if (a->type != b->type) return a->type - b->type;
  switch (a->type) {
    case GEN_OTHERNAME: {
      const int types = OBJ_cmp(a->d.otherName->type_id, b->d.otherName->type_id);
      return types != 0 ? types : order(a->d.otherName->value, b->d.otherName->value);
    }
    case GEN_DIRNAME:
      return X509_NAME_cmp(a->d.directoryName, b->d.directoryName);
    case GEN_EDIPARTY: {
      const int assigners = order(a->d.ediPartyName->nameAssigner, b->d.ediPartyName->nameAssigner);
      return assigners != 0 ? assigners
                            : order(a->d.ediPartyName->partyName, b->d.ediPartyName->partyName);
    }
    case GEN_RID:
      return OBJ_cmp(a->d.registeredID, b->d.registeredID);
    default:
      return ASN1_STRING_cmp(a->d.ia5, b->d.ia5);  // all that are left are ASN1_STRINGs
  }
}

struct Before {
  bool operator()(const RefGeneralName* a, const RefGeneralName* b) const {
    return order(a->get()->native(), b->get()->native()) < 0;
  }
};

}  // namespace

GeneralName::GeneralName(const GENERAL_NAME* native)
    : native_(newCopy(GENERAL_NAME_dup, native, {"X509::GeneralName", "GeneralName"},
                      "name cannot be copied")),
      dn_(directoryName(native_.get())),
      uri_(uniformResourceIdentifier(native_.get())) {}

int GeneralName::type() const noexcept { return native_->type; }

bool GeneralName::operator==(const GeneralName& other) const noexcept {
  const ErrorScope errors;
  // GENERAL_NAME_cmp takes non-const pointers but only reads.
  return GENERAL_NAME_cmp(const_cast<GENERAL_NAME*>(native()),
                          const_cast<GENERAL_NAME*>(other.native())) == 0;
}

RefGeneralName::RefGeneralName(const GENERAL_NAME* native) {
  if (native != nullptr) *this = RefGeneralName(new GeneralName(native));
}

// Both lists may be a stranger's, and a megabyte holds a hundred thousand names: not each is held
// against each. Where there is no memory for that they are.
bool haveOneInCommon(const std::list<RefGeneralName>& left,
                     const std::list<RefGeneralName>& right) {
  constexpr std::size_t kFew = 8;
  const std::list<RefGeneralName>& fewer = left.size() < right.size() ? left : right;
  const std::list<RefGeneralName>& more = &fewer == &left ? right : left;
  const ErrorScope errors;
  if (fewer.size() > kFew) {
    try {
      std::set<const RefGeneralName*, Before> known;
      for (const RefGeneralName& name : fewer) known.insert(&name);
      return std::any_of(more.begin(), more.end(), [&known](const RefGeneralName& name) {
        return known.find(&name) != known.end();
      });
    } catch (const std::bad_alloc&) {
    }
  }
  return std::any_of(more.begin(), more.end(), [&fewer](const RefGeneralName& theirs) {
    return std::any_of(fewer.begin(), fewer.end(), [&theirs](const RefGeneralName& mine) {
      return *mine.get() == *theirs.get();
    });
  });
}

std::list<RefGeneralName> generalNames(const GENERAL_NAMES* names) {
  std::list<RefGeneralName> copies;
  for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
    copies.emplace_back(sk_GENERAL_NAME_value(names, i));
  }
  return copies;
}

}  // namespace Velantrix::Crypto::PKX509
