#include "args.h"

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>

namespace sealmark {

ArgParser& ArgParser::flag(const char* name, bool* target) {
  options_.push_back({name, Kind::kFlag, target});
  return *this;
}

ArgParser& ArgParser::value(const char* name, std::string* target) {
  options_.push_back({name, Kind::kValue, target});
  return *this;
}

ArgParser& ArgParser::value(const char* name, std::optional<std::string>* target) {
  options_.push_back({name, Kind::kOptionalValue, target});
  return *this;
}

ArgParser& ArgParser::repeated(const char* name, std::vector<std::string>* target) {
  options_.push_back({name, Kind::kRepeated, target});
  return *this;
}

ArgParser& ArgParser::secret(const char* name, std::string* target) {
  options_.push_back({name, Kind::kSecret, target});
  return *this;
}

ArgParser& ArgParser::secret(const char* name, std::optional<std::string>* target) {
  options_.push_back({name, Kind::kOptionalSecret, target});
  return *this;
}

bool ArgParser::usageError(const std::string& reason, int& exitCode) const {
  complain(command_, reason + " (see 'sealmark " + command_ + " --help')");
  exitCode = kExitUsage;
  return false;
}

namespace {

// The first line of a file, or of standard input for "-", without its line
// end.
bool readSecret(const std::string& file, std::string& secret) {
  std::ifstream in;
  if (file != "-") {
    in.open(file);
    if (!in) return false;
  }
  std::istream& from = file == "-" ? std::cin : in;
  if (!std::getline(from, secret) && secret.empty()) return false;
  if (!secret.empty() && secret.back() == '\r') secret.pop_back();
  return true;
}

}  // namespace

bool ArgParser::parse(const Args& args, std::vector<std::string>& operands, int& exitCode) const {
  CLI::App app(help_, "sealmark " + command_);
  app.set_help_flag();  // the command's own text is the help
  bool help = false;
  app.add_flag("-h,--help", help);
  std::vector<std::optional<std::string>> values(options_.size());
  std::vector<std::string> secretFiles(options_.size());
  for (std::size_t i = 0; i < options_.size(); ++i) {
    const Option& o = options_[i];
    switch (o.kind) {
      case Kind::kFlag:
        app.add_flag(o.name, *static_cast<bool*>(o.target));
        break;
      case Kind::kRepeated:
        app.add_option(o.name, *static_cast<std::vector<std::string>*>(o.target))->allow_extra_args(false);
        break;
      case Kind::kSecret:
      case Kind::kOptionalSecret:
        app.add_option(o.name + "-file", secretFiles[i]);
        [[fallthrough]];
      default:
        app.add_option(o.name, values[i])->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }
  }
  app.add_option("operands", operands);
  app.allow_extras(false);
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError& e) {
    if (help) {
      std::cout << help_;
      exitCode = kExitOk;
      return false;
    }
    return usageError(e.what(), exitCode);
  }
  if (help) {
    std::cout << help_;
    exitCode = kExitOk;
    return false;
  }
  for (std::size_t i = 0; i < options_.size(); ++i) {
    const Option& o = options_[i];
    const bool isSecret = o.kind == Kind::kSecret || o.kind == Kind::kOptionalSecret;
    if (isSecret && !secretFiles[i].empty()) {
      if (values[i]) return usageError(o.name + " and " + o.name + "-file exclude each other", exitCode);
      std::string secret;
      if (!readSecret(secretFiles[i], secret)) return usageError("cannot read " + secretFiles[i], exitCode);
      values[i] = secret;
    }
    if (!values[i]) continue;
    if (o.kind == Kind::kOptionalValue || o.kind == Kind::kOptionalSecret) {
      *static_cast<std::optional<std::string>*>(o.target) = values[i];
    } else if (o.kind == Kind::kValue || o.kind == Kind::kSecret) {
      *static_cast<std::string*>(o.target) = *values[i];
    }
  }
  return true;
}

}  // namespace sealmark
