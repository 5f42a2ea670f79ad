#include "support/test_tsa.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
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

// CTest runs every test in a process of its own, so the PKI is made once per
// build tree and version of make_pki.sh, under a lock, and moved into place
// whole.  Tests only read it.
const PkiDir& testPki() {
  static const PkiDir pki = [] {
    const std::string script = supportScript("make_pki.sh");
    const std::string dir =
        SEALMARK_TEST_PKI_DIR "-" + std::to_string(std::hash<std::string>()(text(readFile(script))));
    const int lock = ::open((dir + ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (lock < 0 || ::flock(lock, LOCK_EX) != 0) throw std::runtime_error("cannot lock " + dir);
    if (::access((dir + "/tsa.pem").c_str(), R_OK) != 0) {
      const std::string scratch = dir + ".new";
      if (run("rm -rf " + scratch + " && " + script + " " + scratch + " && mv " + scratch + " " + dir)
              .exitCode != 0)
        throw std::runtime_error("make_pki.sh failed");
    }
    ::close(lock);
    return PkiDir{dir};
  }();
  return pki;
}

TestTsa::TestTsa(const std::string& user, const std::string& password) {
  web_.www.write(
      "tsa.cmd",
      bytes("cd " + web_.www.path() + " && test -f tsaserial || echo 01 > tsaserial; P=" + testPki().path() +
            " && openssl ts -reply -config $P/ext.cnf -section tsa_section -queryfile /dev/stdin"
            " -signer $P/tsa.pem -inkey $P/tsa.key -chain $P/ca.pem -out /dev/stdout 2>/dev/null"));
  if (!user.empty()) web_.www.write("tsa.auth", bytes(user + ":" + password));
}

std::string openssl(const std::string& arguments) {
  const CommandResult r = run("openssl " + arguments);
  if (r.exitCode != 0) throw std::runtime_error("openssl " + arguments + " failed: " + r.err);
  return r.out;
}

}  // namespace sealtest
