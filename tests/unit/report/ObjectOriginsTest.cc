#include "foundation/run/VerificationRun.h"
#include "report/ObjectOrigins.h"
#include "unit/verify/World.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using Origin = ObjectOrigins::Origin;

const ObjectOrigins& origins() { return *VerificationRun::kept<ObjectOrigins>(); }

TEST(ObjectOrigins, FirstNoteOnAnObject_Stays) {
  const Issued ca = issueCA("CN=CA");
  const RefCertificate certificate = handle(ca);
  const RefCertificateRevocationList crl = crlHandle({.issuer = &ca});
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const Origin file{Origin::Kind::kTrustDirectory, "/d", "/d/1.0"};
  ObjectOrigins::note(certificate, {file.kind(), file.place(), file.file()});
  ObjectOrigins::note(certificate, {Origin::Kind::kLookupMethod, "method"});
  ObjectOrigins::note(crl, {Origin::Kind::kLDAP, "ldap://host/cn=CA"});
  ASSERT_TRUE(origins().of(certificate->native()));
  EXPECT_EQ(*origins().of(certificate->native()), file);
  ASSERT_TRUE(origins().of(crl));
  EXPECT_EQ(origins().of(crl)->place(), "ldap://host/cn=CA");
  EXPECT_EQ(origins().of(crlHandle({.issuer = &ca})), std::nullopt);
}

TEST(ObjectOrigins, OutsideOfARunAndOfNothing_NothingIsNoted) {
  ObjectOrigins::note(handle(issueCA("CN=CA")), {Origin::Kind::kStore, {}});
  const VerificationRun run(static_cast<const X509*>(nullptr));
  ObjectOrigins::note(RefCertificate(), {Origin::Kind::kStore, {}});
  ObjectOrigins::note(RefCertificateRevocationList(), {Origin::Kind::kStore, {}});
  EXPECT_EQ(origins().of(static_cast<const X509*>(nullptr)), std::nullopt);
}

// What takes the place of one that was noted must not be taken for it.
TEST(ObjectOrigins, WhatIsNoted_IsHeld) {
  const VerificationRun run(static_cast<const X509*>(nullptr));
  X509* native = nullptr;
  {
    const RefCertificate gone =
        CertificateFactory()(certFromDer(der(issueCA("CN=CA").get())).get(), false);
    native = gone->native();
    ObjectOrigins::note(gone, {Origin::Kind::kStore, {}});
  }
  ASSERT_TRUE(origins().of(native));
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(native)), 1);
}

TEST(ObjectOrigins, BeyondTheBound_NothingIsHeld) {
  const VerificationRun run(static_cast<const X509*>(nullptr));
  const Issued ca = issueCA("CN=CA");
  RefCertificate last;
  for (std::size_t i = 0; i <= ObjectOrigins::kMaximumObjects; ++i) {
    last = CertificateFactory()(certFromDer(der(ca.get())).get(), false);
    ObjectOrigins::note(last, {Origin::Kind::kStore, {}});
  }
  EXPECT_EQ(origins().of(last->native()), std::nullopt);
}

}  // namespace
}  // namespace Velantrix::Test
