#include "support/Slapd.h"

#include "support/Command.h"

#include <openssl/evp.h>

#include <chrono>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <system_error>

namespace Velantrix::Test {

namespace {

// Not in the PATH of ordinary users.
constexpr char kServer[] = "/usr/sbin/slapd";
constexpr char kSchema[] = "/etc/ldap/schema/";
constexpr char kAdministrator[] = "cn=administrator";
constexpr char kPassword[] = "secret";
constexpr std::chrono::seconds kPatience(30);

bool accepts(const ReservedPort& port) {
  try {
    connectTo(port.number());
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

std::string base64(const std::string& octets) {
  std::string text(4 * ((octets.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(octets.data()),
                                     static_cast<int>(octets.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

// Every value in base64, which any value may stand in (RFC 2849).
std::string ldif(const Slapd::Entry& entry) {
  std::string text = "dn:: " + base64(entry.dn) + "\n";
  for (const std::string& name : entry.classes) text += "objectClass: " + name + "\n";
  for (const auto& [name, value] : entry.attributes) text += name + ":: " + base64(value) + "\n";
  return text + "\n";
}

}  // namespace

Slapd::Slapd() : Slapd(Options()) {}

// Of its log only what is always written: that it starts, once it listens.
Slapd::Slapd(const Options& options)
    : tls_(options.certificate != nullptr),
      process_({kServer, "-d", "32768", "-f", work_ / "slapd.conf", "-h",
                uri() + "/" + (tls_ ? " " + tlsURI() + "/" : "")},
               "slapd starting") {
  configure(options);
  process_.start();
  // It says so a moment before it listens. Nobody else can: the ports are reserved.
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!accepts(port_) || (tls_ && !accepts(tlsPort_))) {
    if (!process_.running() || std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("slapd does not listen: " + process_.output());
    }
    ::poll(nullptr, 0, 5);  // between two looks
  }
}

void Slapd::configure(const Options& options) const {
  std::string text;
  for (const char* schema : {"core", "cosine", "inetorgperson"}) {
    text += "include " + std::string(kSchema) + schema + ".schema\n";
  }
  text += "modulepath /usr/lib/ldap\nmoduleload back_mdb\nthreads 4\n";
  text += "pidfile " + (work_ / "pid").string() + "\nargsfile " + (work_ / "args").string() + "\n";
  if (tls_) {
    writeFile(work_ / "server.pem", pem(options.certificate->get()));
    writeFile(work_ / "server.key", pem(options.certificate->key.get()));
    text += "TLSCertificateFile " + (work_ / "server.pem").string() + "\n";
    text += "TLSCertificateKeyFile " + (work_ / "server.key").string() + "\n";
  }
  text += options.config +
          "\ndatabase mdb\nsuffix \"\"\nmaxsize 67108864\ndbnosync\nsizelimit unlimited\n";
  text += "rootdn \"" + std::string(kAdministrator) + "\"\nrootpw " + kPassword + "\n";
  text += "directory " + (work_ / "data").string() + "\n" + options.database + "\n";
  std::filesystem::create_directory(work_ / "data");
  writeFile(work_ / "slapd.conf", text);
}

std::string Slapd::uri() const { return "ldap://127.0.0.1:" + port_.text(); }

std::string Slapd::tlsURI() const { return "ldaps://127.0.0.1:" + tlsPort_.text(); }

void Slapd::add(const std::vector<Entry>& entries) const {
  std::string text;
  for (const Entry& entry : entries) text += ldif(entry);
  const CommandResult result =
      runCommand({"ldapadd", "-x", "-H", uri(), "-D", kAdministrator, "-w", kPassword}, text);
  if (result.status != 0) throw std::runtime_error("ldapadd: " + result.err);
}

}  // namespace Velantrix::Test
