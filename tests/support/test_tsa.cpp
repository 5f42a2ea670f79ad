#include "support/test_tsa.h"

#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace sealtest {

Peer::Peer(const std::string& commandLine) {
  // Loopback traffic never goes through a proxy of the environment.
  static const int noProxy = ::setenv("no_proxy", "127.0.0.1", 1) + ::setenv("NO_PROXY", "127.0.0.1", 1);
  (void)noProxy;
  // setsid makes the shell, whose pid popen waits for, leader of the group.
  const std::string script = "echo PID $$; (sleep 120; kill 0) >/dev/null & " + commandLine;
  out_ = ::popen(("exec setsid sh -c " + shellQuote(script)).c_str(), "r");
  char line[256];
  while (port_ == 0 && out_ && std::fgets(line, sizeof line, out_)) {
    if (std::sscanf(line, "PID %d", &pid_) != 1 && std::strncmp(line, "ACCEPT ", 7) == 0)
      port_ = std::atoi(std::strrchr(line, ':') + 1);
  }
  if (port_ == 0) {
    stop();
    throw std::runtime_error("no peer from: " + commandLine);
  }
}

Peer::~Peer() { stop(); }

void Peer::stop() {
  if (pid_ > 0) ::kill(-pid_, SIGTERM);
  if (out_) ::pclose(out_);
  pid_ = -1;
  out_ = nullptr;
}

std::string supportScript(const std::string& name) { return SEALMARK_SOURCE_DIR "/tests/support/" + name; }
int Web::hits(const std::string& name) const {
  const std::string text = log(name);
  int n = 0;
  for (std::size_t at = 0; (at = text.find("\nbody: ", at)) != std::string::npos; ++at) ++n;
  return n;
}

const TempDir& testPki() {
  static const TempDir dir;
  static const bool made = run(supportScript("make_pki.sh") + " " + dir.path()).exitCode == 0;
  if (!made) throw std::runtime_error("make_pki.sh failed");
  return dir;
}

TestTsa::TestTsa(const std::string& user, const std::string& password) {
  web_.www.write("tsa.cmd",
                 bytes("cd " + testPki().path() +
                       " && openssl ts -reply -config ext.cnf -section tsa_section -queryfile /dev/stdin"
                       " -signer tsa.pem -inkey tsa.key -chain ca.pem -out /dev/stdout 2>/dev/null"));
  if (!user.empty()) web_.www.write("tsa.auth", bytes(user + ":" + password));
}

std::string openssl(const std::string& arguments) {
  const CommandResult r = run("openssl " + arguments);
  if (r.exitCode != 0) throw std::runtime_error("openssl " + arguments + " failed: " + r.err);
  return r.out;
}

}  // namespace sealtest
