#include "foundation/model/GeneralNames.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"

#include <velantrix/GeneralName.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

DistinguishedName directoryName(const std::shared_ptr<const GENERAL_NAME>& name) {
  if (notNull(name.get())->type != GEN_DIRNAME) return DistinguishedName();
  return DistinguishedName(std::shared_ptr<const X509_NAME>(name, name->d.directoryName));
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

bool isBefore(const GENERAL_NAME* a, const GENERAL_NAME* b) { return order(a, b) < 0; }

std::shared_ptr<const GENERAL_NAME> copyOf(const GENERAL_NAME* name) {
  return newCopy(GENERAL_NAME_dup, name, {"X509::GeneralName", "GeneralName"},
                 "name cannot be copied");
}

bool equal(const GENERAL_NAME* a, const GENERAL_NAME* b) noexcept {
  // GENERAL_NAME_cmp takes non-const pointers but only reads.
  return GENERAL_NAME_cmp(const_cast<GENERAL_NAME*>(a), const_cast<GENERAL_NAME*>(b)) == 0;
}

template <class Test>
bool anyOf(const GENERAL_NAMES* names, Test test) {
  for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
    if (test(sk_GENERAL_NAME_value(names, i))) return true;
  }
  return false;
}

}  // namespace

GeneralName::GeneralName(const GENERAL_NAME* native) : GeneralName(copyOf(native)) {}

GeneralName::GeneralName(std::shared_ptr<const GENERAL_NAME> native)
    : native_(std::move(native)), dn_(directoryName(native_)) {}

int GeneralName::type() const noexcept { return native_->type; }

Uri GeneralName::uri() const {
  if (native_->type != GEN_URI) return Uri();
  const ASN1_IA5STRING* text = native_->d.uniformResourceIdentifier;
  const unsigned char* data = ASN1_STRING_get0_data(text);
  return Uri(std::string(data, data + ASN1_STRING_length(text)));
}

bool GeneralName::operator==(const GeneralName& other) const noexcept {
  const ErrorScope errors;
  return equal(native(), other.native());
}

RefGeneralName::RefGeneralName(const GENERAL_NAME* native) {
  if (native != nullptr) *this = RefGeneralName(new GeneralName(native));
}

// Both lists may be a stranger's, and a megabyte holds half a million names: not each is held
// against each. Where there is no memory for that they are.
bool haveOneInCommon(const GENERAL_NAMES* left, const GENERAL_NAMES* right) noexcept {
  constexpr int kFew = 8;
  const bool leftIsShorter = sk_GENERAL_NAME_num(left) < sk_GENERAL_NAME_num(right);
  const GENERAL_NAMES* fewer = leftIsShorter ? left : right;
  const GENERAL_NAMES* more = leftIsShorter ? right : left;
  const ErrorScope errors;
  if (sk_GENERAL_NAME_num(fewer) > kFew) {
    try {
      std::vector<const GENERAL_NAME*> known;
      known.reserve(static_cast<std::size_t>(sk_GENERAL_NAME_num(fewer)));
      anyOf(fewer, [&known](const GENERAL_NAME* name) {
        known.push_back(name);
        return false;
      });
      std::sort(known.begin(), known.end(), isBefore);
      return anyOf(more, [&known](const GENERAL_NAME* name) {
        return std::binary_search(known.begin(), known.end(), name, isBefore);
      });
    } catch (const std::bad_alloc&) {
    }
  }
  return anyOf(more, [fewer](const GENERAL_NAME* theirs) {
    return anyOf(fewer, [theirs](const GENERAL_NAME* mine) { return equal(mine, theirs); });
  });
}

bool holdDirectoryName(const GENERAL_NAMES* names, const DistinguishedName& name) noexcept {
  // The empty name may have nothing native yet, and no memory for it.
  const X509_NAME* const wanted = name.empty() ? nullptr : name.native();
  const ErrorScope errors;
  return anyOf(names, [wanted](const GENERAL_NAME* mine) {
    if (mine->type != GEN_DIRNAME) return false;
    if (wanted == nullptr) return X509_NAME_entry_count(mine->d.directoryName) <= 0;
    return X509_NAME_cmp(mine->d.directoryName, wanted) == 0;
  });
}

RefGeneralName generalName(const std::shared_ptr<const GENERAL_NAMES>& names, int index) {
  return RefGeneralName(new GeneralName(
      std::shared_ptr<const GENERAL_NAME>(names, sk_GENERAL_NAME_value(names.get(), index))));
}

std::list<RefGeneralName> generalNames(const std::shared_ptr<const GENERAL_NAMES>& names) {
  std::list<RefGeneralName> handles;
  const int count = countOf(names);
  for (int i = 0; i < count; ++i) handles.push_back(generalName(names, i));
  return handles;
}

}  // namespace Velantrix::Crypto::PKX509
