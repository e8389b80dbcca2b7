#include "support/WebServer.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace Velantrix::Test {

namespace {

// Debian's place, which is not in an ordinary user's PATH.
constexpr char kNginx[] = "/usr/sbin/nginx";
constexpr std::string_view kRequestMark = "request\t";

/// The tab cannot be in a value: nginx escapes it.
constexpr char kLogFormat[] =
    "request\t$request\t$status\t$http_user_agent\t$http_pragma\t$http_accept\t$http_connection\t"
    "$http_host\t$ssl_client_s_dn\tend";

std::vector<WebRequest> readLog(const std::string& output) {
  std::vector<WebRequest> requests;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, kRequestMark.size(), kRequestMark) != 0) continue;
    std::vector<std::string> fields;
    std::istringstream parts(line);
    for (std::string field; std::getline(parts, field, '\t');) fields.push_back(field);
    if (fields.size() != 10 || fields.back() != "end") continue;  // still being written
    requests.push_back({fields[1], std::stoi(fields[2]), fields[3], fields[4], fields[5], fields[6],
                        fields[7], fields[8]});
  }
  return requests;
}

std::string makeUrl(const char* scheme, const char* host, const std::optional<ReservedPort>& port,
                    std::string_view path) {
  if (!port) throw std::runtime_error(std::string("WebServer: no ") + scheme + " on " + host);
  return std::string(scheme) + "://" + host + ":" + port->text() + std::string(path);
}

}  // namespace

// Nginx says which event method it uses once its sockets listen: connections wait there from then.
WebServer::WebServer(const WebServerOptions& options)
    : process_({kNginx, "-e", "stderr", "-p", directory_.string() + "/", "-c",
                (directory_ / "nginx.conf").string()},
               "event method") {
  if (hasIPv6Loopback()) ipv6Port_.emplace("::1");
  if (options.certificate != nullptr) {
    tlsPort_.emplace();
    writeFile(directory_ / "server.crt", pem(options.certificate->cert.get()));
    writeFile(directory_ / "server.key", pem(options.certificate->key.get()));
  }
  if (options.clientCA != nullptr) {
    writeFile(directory_ / "client-ca.crt", pem(options.clientCA->cert.get()));
  }
  std::filesystem::create_directory(root());
  for (const std::string& host : options.virtualHosts) {
    std::filesystem::create_directory(root() / host);
  }
  writeFile(directory_ / "nginx.conf", configuration(options));
  start();
}

std::string WebServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + port_.text() + std::string(path);
}

std::string WebServer::ipv6Url(std::string_view path) const {
  return makeUrl("http", "[::1]", ipv6Port_, path);
}

std::string WebServer::tlsUrl(std::string_view path) const {
  return makeUrl("https", "127.0.0.1", tlsPort_, path);
}

std::vector<WebRequest> WebServer::requests() const { return readLog(process_.output()); }

std::size_t WebServer::requestsFor(std::string_view path) const {
  const std::vector<WebRequest> all = requests();
  const std::string part = " " + std::string(path) + " ";
  return static_cast<std::size_t>(std::count_if(
      all.begin(), all.end(),
      [&part](const WebRequest& request) { return request.line.find(part) != std::string::npos; }));
}

bool WebServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  return process_.waitForOutput(
      [count](const std::string& output) { return readLog(output).size() >= count; }, limit);
}

std::string WebServer::configuration(const WebServerOptions& options) const {
  const std::string directory = directory_.string();
  std::ostringstream conf;
  // One process, which has no user to change to and nobody to outlive. The log goes through the
  // standard output, so that it can be waited for.
  conf << "daemon off;\nmaster_process off;\n"
       << "pid " << directory << "/nginx.pid;\n"
       << "error_log stderr notice;\n"
       << "events { worker_connections 256; }\n"
       << "http {\n"
       << "  log_format test '" << kLogFormat << "';\n"
       << "  access_log /dev/stdout test;\n"
       << "  root " << root().string() << ";\n"
       << "  default_type application/pkix-crl;\n";
  for (const char* use : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    conf << "  " << use << "_temp_path " << directory << "/" << use << ";\n";
  }
  conf << "  server {\n    listen 127.0.0.1:" << port_.number() << ";\n";
  if (ipv6Port_) conf << "    listen [::1]:" << ipv6Port_->number() << ";\n";
  conf << options.directives << "  }\n";
  for (const std::string& host : options.virtualHosts) {
    conf << "  server {\n    listen 127.0.0.1:" << port_.number() << ";\n    server_name " << host
         << ";\n    root " << (root() / host).string() << ";\n  }\n";
  }
  if (tlsPort_) {
    conf << "  server {\n    listen 127.0.0.1:" << tlsPort_->number() << " ssl;\n"
         << "    ssl_certificate " << directory << "/server.crt;\n"
         << "    ssl_certificate_key " << directory << "/server.key;\n";
    if (options.clientCA != nullptr) {
      conf << "    ssl_client_certificate " << directory << "/client-ca.crt;\n"
           << "    ssl_verify_client on;\n";
    }
    conf << "  }\n";
  }
  conf << options.more << "}\n";
  return conf.str();
}

}  // namespace Velantrix::Test
