#include "support/Slapd.h"

#include "support/Command.h"

#include <openssl/evp.h>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

// Not in the PATH of ordinary users.
constexpr char kServer[] = "/usr/sbin/slapd";
constexpr char kSchema[] = "/etc/ldap/schema/";
constexpr char kAdministrator[] = "cn=administrator";
constexpr char kPassword[] = "secret";
constexpr int kAttempts = 10;
constexpr std::chrono::seconds kPatience(30);

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class Socket {
 public:
  Socket() : number_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (number_ < 0) fail("socket");
  }
  ~Socket() { ::close(number_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int number() const { return number_; }

 private:
  int number_;
};

sockaddr_in loopback(unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A port that was free a moment ago. Who asks for two keeps the sockets until both are known.
unsigned short bindAny(const Socket& socket) {
  sockaddr_in address = loopback(0);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (::bind(socket.number(), generic, size) != 0) fail("bind");
  if (::getsockname(socket.number(), generic, &size) != 0) fail("getsockname");
  return ntohs(address.sin_port);
}

bool accepts(unsigned short port) {
  const Socket socket;
  const sockaddr_in address = loopback(port);
  return ::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
         0;
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

Slapd::Slapd(const Options& options) : tls_(options.certificate != nullptr) {
  configure(options);
  for (int i = 0; i < kAttempts; ++i) {
    if (start()) return;  // else somebody else took a port in the meantime
  }
  throw std::runtime_error("slapd does not start, see \"" + std::string(kServer) + " -d 1\"");
}

Slapd::~Slapd() { stop(); }

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

bool Slapd::start() {
  {
    const Socket first;
    const Socket second;
    port_ = bindAny(first);
    tlsPort_ = bindAny(second);
  }
  const std::string config = (work_ / "slapd.conf").string();
  const std::string urls = uri() + "/" + (tls_ ? " " + tlsUri() + "/" : "");
  const pid_t parent = ::getpid();
  process_ = ::fork();
  if (process_ < 0) fail("fork");
  if (process_ == 0) {
    // It ends with this process, whatever becomes of that.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);
    const int null = ::open("/dev/null", O_RDWR);
    for (int i = 0; i < 3; ++i) ::dup2(null, i);
    ::execl(kServer, kServer, "-d", "0", "-f", config.c_str(), "-h", urls.c_str(), nullptr);
    ::_exit(127);
  }
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < end) {
    int status = 0;
    if (::waitpid(process_, &status, WNOHANG) == process_) {
      process_ = -1;
      return false;
    }
    if (accepts(port_) && (!tls_ || accepts(tlsPort_))) return true;
    ::poll(nullptr, 0, 5);  // between two looks
  }
  stop();
  return false;
}

void Slapd::stop() {
  if (process_ < 0) return;
  ::kill(process_, SIGKILL);  // nothing of it is needed any more
  while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
}

std::string Slapd::uri() const { return "ldap://127.0.0.1:" + std::to_string(port_); }

std::string Slapd::tlsUri() const { return "ldaps://127.0.0.1:" + std::to_string(tlsPort_); }

void Slapd::add(const std::vector<Entry>& entries) const {
  std::string text;
  for (const Entry& entry : entries) text += ldif(entry);
  const CommandResult result =
      runCommand({"ldapadd", "-x", "-H", uri(), "-D", kAdministrator, "-w", kPassword}, text);
  if (result.status != 0) throw std::runtime_error("ldapadd: " + result.err);
}

}  // namespace Velantrix::Test
