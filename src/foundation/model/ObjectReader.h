// Finding certificates or CRLs in PEM and DER input.
#pragma once

#include "foundation/base/Fail.h"
#include "foundation/base/Octets.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/File.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

/// What somebody looks for in an input.
class ObjectSink {
 public:
  virtual ~ObjectSink();
  /// Whether a PEM block with this label is of the kind looked for.
  virtual bool wants(std::string_view label) const = 0;
  /// Takes one DER encoding, borrowed.
  /// @param label the PEM block's label, empty for an element of DER input
  /// @return false when the octets are no object of the kind looked for, to the last one
  virtual bool take(std::string_view label, const unsigned char* der, std::size_t length) = 0;
  /// The same for octets that may be kept: who returns true may have taken them away. By default they are
  /// borrowed.
  virtual bool takeOctets(std::string_view label, Octets& der);
  /// Whether what stands behind the last object that was taken need not be read; by default it is.
  virtual bool hasEnough() const;
  /// Hears what cannot be read, as often as there is such a place. Unless it throws, reading goes on
  /// behind a PEM block; what is no block at all, and an element of DER, is where it ends.
  /// @throws Exception with that reason, unless an implementation does something else
  virtual void refuse(const std::string& reason);
};

/// Hands every object of the kind that @p sink looks for to it, in the order of the input. The
/// input is PEM, or DER objects end to end; an input of no octets holds nothing.
///
/// Objects of other kinds are passed over. In DER input they have to be recognised for that: an
/// element that is nothing known is a broken object of the kind looked for rather than something
/// else. No passphrase is ever asked for; an encrypted block of the kind looked for is malformed.
///
/// @throws Exception when the input is too large, and whatever the sink throws; the sink may then
///         have taken some of the objects
void readObjects(const unsigned char* data, std::size_t length, ObjectSink& sink);

/// The same for octets that the sink may take away.
void readObjects(Octets& data, ObjectSink& sink);

/// The same for the content of a file.
/// @throws Exception in the name of @p origin and with the caller's line when something in the file
///         cannot be read, and as `readFile()` when the file cannot be
void readObjects(const File::Path& path, ObjectSink& sink, const Origin& origin,
                 unsigned int line = __builtin_LINE());

/// Whether PEM blocks with this label hold a certificate.
bool isCertificateLabel(std::string_view label);
/// Whether the certificate of a running verification that has the octets does as well, or it has to be an
/// object of its own, to outlive the verification.
enum class Decoding { kAny, kOwn };
/// The certificate that all of the octets are; empty when they are none.
/// @param label as `ObjectSink::take` has it
RefCertificate decodeCertificate(std::string_view label, const unsigned char* der,
                                 std::size_t length, Decoding decoding = Decoding::kAny);

/// Whether PEM blocks with this label hold a CRL.
bool isCRLLabel(std::string_view label);
/// The CRL that all of the octets are; empty when they are none.
/// @throws Exception when they are a broken one
RefCertificateRevocationList decodeCRL(const unsigned char* der, std::size_t length);
/// The same. A CRL in its compact form takes the octets away, others leave them.
RefCertificateRevocationList decodeCRL(Octets& der);
/// The first CRL of an input as `readObjects()` reads it; empty when there is none. What follows is
/// not even looked at: from a stranger it may be anything, and much of it.
/// @throws Exception when what stands before the end of the CRL cannot be read
RefCertificateRevocationList readFirstCRL(const unsigned char* data, std::size_t length);

}  // namespace Velantrix::Crypto::PKX509
