#include "args.h"

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

bool ArgParser::usageError(const std::string& reason, int& exitCode) const {
  complain(command_, reason + " (see 'sealmark " + command_ + " --help')");
  exitCode = kExitUsage;
  return false;
}

bool ArgParser::parse(const Args& args, std::vector<std::string>& operands, int& exitCode) const {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "-h" || arg == "--help") {
      std::cout << help_;
      exitCode = kExitOk;
      return false;
    }
    if (arg == "--") {
      operands.insert(operands.end(), args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());
      break;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      operands.push_back(arg);
      continue;
    }
    const std::size_t eq = arg.find('=');
    const std::string name = arg.substr(0, eq);
    const Option* option = nullptr;
    for (const Option& o : options_) {
      if (o.name == name) option = &o;
    }
    if (!option) return usageError("unknown option " + name, exitCode);
    if (option->kind == Kind::kFlag) {
      if (eq != std::string::npos) return usageError(name + " takes no value", exitCode);
      *static_cast<bool*>(option->target) = true;
      continue;
    }
    std::string value;
    if (eq != std::string::npos) {
      value = arg.substr(eq + 1);
    } else if (i + 1 < args.size()) {
      value = args[++i];
    } else {
      return usageError(name + " needs a value", exitCode);
    }
    switch (option->kind) {
      case Kind::kValue: *static_cast<std::string*>(option->target) = value; break;
      case Kind::kOptionalValue: *static_cast<std::optional<std::string>*>(option->target) = value; break;
      case Kind::kRepeated: static_cast<std::vector<std::string>*>(option->target)->push_back(value); break;
      case Kind::kFlag: break;
    }
  }
  return true;
}

}  // namespace sealmark
