#include "support/OCSPResponder.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>

#include <array>
#include <ctime>
#include <sstream>
#include <stdexcept>

namespace Velantrix::Test {

namespace {

/// What the index calls a CRL_REASON_*. There is no 7, and openssl knows none after 8.
std::string reasonText(int reason) {
  constexpr std::array<const char*, 9> kNames = {
      "unspecified",  "keyCompromise",        "CACompromise",    "affiliationChanged",
      "superseded",   "cessationOfOperation", "certificateHold", "",
      "removeFromCRL"};
  const auto at = static_cast<std::size_t>(reason);
  const std::string name = at < kNames.size() ? kNames.at(at) : "";
  // The responder would start, and answer without a reason.
  if (name.empty()) throw std::runtime_error("OCSPResponder: openssl cannot give this reason");
  return name;
}

/// UTCTime, the only form that openssl reads there.
std::string timeText(std::time_t time) {
  const Owned<ASN1_UTCTIME> text(ASN1_UTCTIME_set(nullptr, time));
  if (!text) throw std::runtime_error("ASN1_UTCTIME_set");
  return reinterpret_cast<const char*>(ASN1_STRING_get0_data(text.get()));
}

/// The index is searched for the text that OpenSSL makes of the number.
std::string serialText(const Serial& serial) {
  BIGNUM* parsed = nullptr;
  const int used = BN_hex2bn(&parsed, serial.hex().c_str());
  const Owned<BIGNUM> number(parsed);
  if (used <= 0) throw std::runtime_error("OCSPResponder: an entry has no serial number");
  const Crypto::OwnedMemory<char> text(BN_bn2hex(number.get()));
  if (!text) throw std::runtime_error("BN_bn2hex");
  return text.get();
}

/// One line of the file that `openssl ca` calls its database: status, end of validity, revocation,
/// serial number, file, subject. End, file and subject are not looked at, but must be there.
std::string indexLine(const OCSPEntry& entry) {
  const std::string serial = serialText(entry.serial);
  std::string revocation;
  if (entry.revoked) {
    revocation = timeText(entry.date.time());
    if (entry.reason != kAbsent) revocation += "," + reasonText(entry.reason);
  }
  return std::string(entry.revoked ? "R" : "V") + "\t99991231235959Z\t" + revocation + "\t" +
         serial + "\tunknown\t/CN=" + serial + "\n";
}

std::vector<std::string> requestLines(const std::string& output) {
  // OpenSSL 3.0 writes "Received", 3.5 "received".
  constexpr std::string_view kMark = "eceived request, 1st line: ";
  std::vector<std::string> found;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t at = line.find(kMark);
    if (at != std::string::npos) found.push_back(line.substr(at + kMark.size()));
  }
  return found;
}

std::vector<std::string> commandLine(const OCSPOptions& options, const TempDir& directory,
                                     const ReservedPort& port) {
  std::vector<std::string> command = {"openssl", "ocsp", "-port", port.text()};
  const auto add = [&command](const char* option, const std::string& value) {
    command.insert(command.end(), {option, value});
  };
  add("-index", directory / "index.txt");
  add("-CA", directory / "ca.crt");
  add("-rsigner", directory / "signer.crt");
  add("-rkey", directory / "signer.key");
  if (options.nextUpdate) add("-nmin", std::to_string(options.nextUpdate->count()));
  if (options.maxRequests > 0) add("-nrequest", std::to_string(options.maxRequests));
  if (options.byKey) command.emplace_back("-resp_key_id");
  if (!options.certificates) command.emplace_back("-resp_no_certs");
  if (options.badSignature) command.emplace_back("-badsig");
  return command;
}

}  // namespace

// It writes the line with ACCEPT once its socket listens.
OCSPResponder::OCSPResponder(const OCSPOptions& options)
    : process_(commandLine(options, directory_, port_), "ACCEPT ") {
  if (options.ca == nullptr) throw std::runtime_error("OCSPResponder: no CA");
  const Issued& signer = options.signer != nullptr ? *options.signer : *options.ca;
  writeFile(directory_ / "ca.crt", pem(options.ca->cert.get()));
  writeFile(directory_ / "signer.crt", pem(signer.cert.get()));
  writeFile(directory_ / "signer.key", pem(signer.key.get()));
  setIndex(options.index);
}

std::string OCSPResponder::url(std::string_view path) const {
  return "http://127.0.0.1:" + port_.text() + std::string(path);
}

void OCSPResponder::setIndex(const std::vector<OCSPEntry>& entries) {
  // A running responder looks at the file only after it has answered once more.
  stop();
  std::string lines;
  for (const OCSPEntry& entry : entries) lines += indexLine(entry);
  writeFile(directory_ / "index.txt", lines);
  start();
}

std::vector<std::string> OCSPResponder::requests() const { return requestLines(process_.output()); }

bool OCSPResponder::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  return process_.waitForOutput(
      [count](const std::string& output) { return requestLines(output).size() >= count; }, limit);
}

}  // namespace Velantrix::Test
