// Command-line options of the sealmark commands, read the same way for all
// of them through CLI11: "--name value" or "--name=value", flags, options
// that may repeat, "--" before operands that begin with a dash, and
// -h / --help, which prints the command's own help text.
#ifndef SEALMARK_ARGS_H
#define SEALMARK_ARGS_H

#include <optional>
#include <string>
#include <vector>

#include "commands.h"

namespace sealmark {

class ArgParser {
 public:
  // command names the command in messages; help is printed for -h/--help.
  ArgParser(std::string command, const char* help) : command_(std::move(command)), help_(help) {}

  ArgParser& flag(const char* name, bool* target);
  ArgParser& value(const char* name, std::string* target);
  ArgParser& value(const char* name, std::optional<std::string>* target);
  ArgParser& repeated(const char* name, std::vector<std::string>* target);
  // A secret: "--name PW", or "--name-file FILE" with the secret on the
  // file's first line ("-" reads standard input), so that it need not show
  // in the process list.
  ArgParser& secret(const char* name, std::string* target);
  ArgParser& secret(const char* name, std::optional<std::string>* target);

  // Reads args into the targets and the operands.  False when the command
  // should stop at once: after printing its help (exitCode 0) or after one
  // line on stderr about bad usage (exitCode 2).
  bool parse(const Args& args, std::vector<std::string>& operands, int& exitCode) const;

  // One line on stderr, "sealmark: COMMAND: reason (see 'sealmark COMMAND
  // --help')", and kExitUsage into exitCode; gives false.
  bool usageError(const std::string& reason, int& exitCode) const;

 private:
  enum class Kind { kFlag, kValue, kOptionalValue, kRepeated, kSecret, kOptionalSecret };
  struct Option {
    std::string name;
    Kind kind;
    void* target;
  };
  std::string command_;
  const char* help_;
  std::vector<Option> options_;
};

}  // namespace sealmark

#endif
