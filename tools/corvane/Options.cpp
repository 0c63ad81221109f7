#include "Options.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <stdexcept>

namespace corvane {
namespace {

using Setter = std::function<std::string(Options*, const std::string&)>;

struct OptionRule {
  bool takes_value;
  bool is_command_option;
  Setter set;
};

std::string ParseNumber(const std::string& name, const std::string& text,
                        std::optional<std::uint64_t>* out) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return "--" + name + " takes a number of 0 or more, not \"" + text + "\"";
  }
  try {
    *out = std::stoull(text);
  } catch (const std::out_of_range&) {
    return "--" + name + " is out of range: " + text;
  }
  return std::string();
}

Setter Text(std::string Options::*member) {
  return [member](Options* options, const std::string& value) {
    options->*member = value;
    return std::string();
  };
}

Setter Number(const std::string& name, std::optional<std::uint64_t> Options::*member) {
  return [name, member](Options* options, const std::string& value) {
    return ParseNumber(name, value, &(options->*member));
  };
}

Setter Flag(bool Options::*member) {
  return [member](Options* options, const std::string&) {
    options->*member = true;
    return std::string();
  };
}

std::string AddEndpoint(Options* options, const std::string& value) {
  std::string::size_type equals = value.find('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == value.size()) {
    return "--endpoint takes NAME=URL, not \"" + value + "\"";
  }
  options->endpoints.emplace_back(value.substr(0, equals), value.substr(equals + 1));
  return std::string();
}

const std::map<std::string, OptionRule>& Rules() {
  static const std::map<std::string, OptionRule> rules = {
      {"service", {true, false, Text(&Options::service)}},
      {"root", {true, false, Text(&Options::root)}},
      {"url", {true, false, Text(&Options::url)}},
      {"user", {true, false, Text(&Options::user)}},
      {"password", {true, false, Text(&Options::password)}},
      {"token", {true, false, Text(&Options::token)}},
      {"endpoint", {true, false, AddEndpoint}},
      {"log", {true, false, Text(&Options::log_file)}},
      {"json", {false, false, Flag(&Options::json)}},
      {"timeout", {true, false, Number("timeout", &Options::timeout_seconds)}},
      {"state", {true, false, Text(&Options::state_file)}},
      {"offset", {true, true, Number("offset", &Options::offset)}},
      {"limit", {true, true, Number("limit", &Options::limit)}},
      {"overwrite", {false, true, Flag(&Options::overwrite)}},
      {"retries", {true, true, Number("retries", &Options::retries)}},
      {"for", {true, true, Number("for", &Options::for_seconds)}},
      {"type", {true, true, Text(&Options::hash_type)}},
      {"port", {true, true, Number("port", &Options::port)}},
      {"seed", {true, true, Text(&Options::seed)}},
  };
  return rules;
}

void FillFromEnvironment(Options* options) {
  const std::pair<const char*, std::string Options::*> variables[] = {
      {"CORVANE_SERVICE", &Options::service}, {"CORVANE_URL", &Options::url},
      {"CORVANE_USER", &Options::user},       {"CORVANE_PASSWORD", &Options::password},
      {"CORVANE_TOKEN", &Options::token},
  };
  for (const auto& [variable, member] : variables) {
    const char* value = std::getenv(variable);
    if (value && (options->*member).empty()) {
      options->*member = value;
    }
  }
}

// Splits "--name=value" and "--name value"; `*next` moves past what was consumed.
std::string TakeOption(const std::vector<std::string>& argv, std::size_t* next, Options* options) {
  std::string word = argv[*next].substr(2);
  std::optional<std::string> value;
  std::string::size_type equals = word.find('=');
  if (equals != std::string::npos) {
    value = word.substr(equals + 1);
    word.resize(equals);
  }
  auto rule = Rules().find(word);
  if (rule == Rules().end()) {
    return "unknown option --" + word;
  }
  if (rule->second.takes_value && !value) {
    if (*next + 1 >= argv.size()) {
      return "--" + word + " needs a value";
    }
    value = argv[++*next];
  } else if (!rule->second.takes_value && value) {
    return "--" + word + " takes no value";
  }
  if (rule->second.is_command_option) {
    options->given.insert(word);
  }
  return rule->second.set(options, value.value_or(std::string()));
}

}  // namespace

std::string ParseArguments(const std::vector<std::string>& argv, Options* options) {
  bool options_ended = false;
  std::vector<std::string> words;
  for (std::size_t next = 0; next < argv.size(); ++next) {
    const std::string& arg = argv[next];
    if (!options_ended && arg == "--") {
      options_ended = true;
    } else if (!options_ended && arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
      std::string error = TakeOption(argv, &next, options);
      if (!error.empty()) {
        return error;
      }
    } else {
      words.push_back(arg);
    }
  }
  FillFromEnvironment(options);
  if (words.empty()) {
    return "no command given";
  }
  options->command = words.front();
  options->args.assign(words.begin() + 1, words.end());
  return std::string();
}

const char* UsageText() {
  return R"(usage: corvane [options] COMMAND [ARGS]

Drives one account through libcorvane_services, as the client's core does.

Options (before or after the command):
  --service NAME        webdav, pcloud, google, dropbox, onedrive, yandex, box, huawei
                        (default: $CORVANE_SERVICE)
  --root PATH           the remote folder to mount (default: the whole account)
  --url URL             the WebDAV server ($CORVANE_URL)
  --user U              the WebDAV user ($CORVANE_USER)
  --password P          the WebDAV password ($CORVANE_PASSWORD)
  --token T             an OAuth access token ($CORVANE_TOKEN)
  --endpoint NAME=URL   point one service endpoint elsewhere (repeatable)
  --log FILE            append the library's log lines to FILE
  --json                one JSON object a line
  --timeout SECONDS     stop the command when it has run this long (exit 11, STOPPED)
  --state FILE          for a service that keeps state (google): restore the tree from FILE
                        and follow the change feed from there instead of listing everything,
                        and save it back after a command that didn't change the account

Commands:
  tree                          the whole tree, sorted by path, and a summary
  ls PATH                       one folder
  get REMOTE LOCAL [--offset N] [--limit N]   read a file (LOCAL "-" is stdout;
                                the limit is the end offset, exclusive)
  put LOCAL REMOTE [--overwrite] [--retries N]
                                upload a file; a failed try is tried again up to N
                                times, resuming where the service allows it
  export REMOTE LOCAL           a Google document (its shortcut REMOTE) in an office
                                format, as the backup side fetches it
  mkdir PATH | rm PATH | rmdir PATH | mv FROM TO
  quota                         total, used and free bytes
  link PATH | unlink PATH       publish or withdraw a public link
  changes [--for SECONDS]       the tree, then the change feed
  hash --type TYPE FILE         dropbox, quickxor, google, box, yandex or internal
  emulate SERVICE --port N [--seed DIR]
                                host a service's emulator on 127.0.0.1 (port 0: any),
                                with the files of DIR, until Ctrl-C; prints the
                                options that point corvane at it

Exit status: 0 on success, 10 plus the Result value on a failed operation,
2 for a wrong command line, 3 when the service cannot be reached through the library.
)";
}

}  // namespace corvane
