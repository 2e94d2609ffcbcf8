#include <charconv>
#include <cstdio>
#include <cstring>

#include "tools/batch/batch.h"

namespace {

// A leading '-' makes an option, except for a lone "-" and negative numbers, which are
// values or positional arguments.
bool looks_like_option(const std::string& arg) {
  if (arg.size() < 2 || arg[0] != '-') return false;
  const char second = arg[1];
  return !(second >= '0' && second <= '9') && second != '.';
}

// "--name=value" for a long name: the value, or nullopt when arg is not of that form.
std::optional<std::string> inline_value(const std::string& arg, const char* name) {
  const size_t n = std::strlen(name);
  if (n > 2 && arg.size() > n && arg.compare(0, n, name) == 0 && arg[n] == '=')
    return arg.substr(n + 1);
  return std::nullopt;
}

bool is_one_of(const std::string& arg, std::initializer_list<const char*> names) {
  for (const char* name : names)
    if (arg == name) return true;
  return false;
}

std::string range_text(double min, double max) {
  char text[96];
  std::snprintf(text, sizeof text, "from %g to %g", min, max);
  return text;
}

}  // namespace

BatchArgs::BatchArgs(std::string command, std::vector<std::string> args)
    : command_(std::move(command)) {
  bool optionsEnded = false;
  for (std::string& arg : args) {
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
      continue;
    }
    const bool isOption = !optionsEnded && looks_like_option(arg);
    tokens_.push_back(Token{std::move(arg), isOption});
  }
}

void BatchArgs::Fail(const std::string& message) {
  std::fprintf(stderr, "Err: %s: %s\n", command_.c_str(), message.c_str());
  ok_ = false;
}

bool BatchArgs::TakeFlag(std::initializer_list<const char*> names) {
  bool found = false;
  for (size_t i = 0; i < tokens_.size();) {
    if (tokens_[i].isOption && is_one_of(tokens_[i].text, names)) {
      found = true;
      tokens_.erase(tokens_.begin() + static_cast<std::ptrdiff_t>(i));
    } else {
      ++i;
    }
  }
  return found;
}

std::optional<std::string> BatchArgs::TakeValue(std::initializer_list<const char*> names) {
  const std::vector<std::string> values = TakeValues(names);
  if (values.size() > 1) Fail("option " + std::string(*names.begin()) + " given twice");
  if (values.empty()) return std::nullopt;
  return values.back();
}

std::vector<std::string> BatchArgs::TakeValues(std::initializer_list<const char*> names) {
  std::vector<std::string> values;
  for (size_t i = 0; i < tokens_.size();) {
    const Token token = tokens_[i];
    std::optional<std::string> found;
    for (const char* name : names)
      if (!found && token.isOption) found = inline_value(token.text, name);
    const bool separate = token.isOption && is_one_of(token.text, names);
    if (!found && !separate) {
      ++i;
      continue;
    }
    tokens_.erase(tokens_.begin() + static_cast<std::ptrdiff_t>(i));
    if (separate) {
      if (i >= tokens_.size() || tokens_[i].isOption) {
        Fail("option " + token.text + " needs a value");
        continue;
      }
      found = tokens_[i].text;
      tokens_.erase(tokens_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    values.push_back(*found);
  }
  return values;
}

std::optional<double> BatchArgs::TakeNumber(std::initializer_list<const char*> names,
                                            double min, double max) {
  const std::optional<std::string> text = TakeValue(names);
  if (!text) return std::nullopt;
  double v = 0.0;
  const char* first = text->data();
  const char* last = first + text->size();
  const auto [end, error] = std::from_chars(first, last, v);
  if (text->empty() || error != std::errc{} || end != last || !(v >= min && v <= max)) {
    Fail(std::string("option ") + *names.begin() + " needs a number " + range_text(min, max) +
         ", not \"" + *text + "\"");
    return std::nullopt;
  }
  return v;
}

std::optional<long long> BatchArgs::TakeInteger(std::initializer_list<const char*> names,
                                                long long min, long long max) {
  const std::optional<std::string> text = TakeValue(names);
  if (!text) return std::nullopt;
  long long v = 0;
  const char* first = text->data();
  const char* last = first + text->size();
  const auto [end, error] = std::from_chars(first, last, v);
  if (text->empty() || error != std::errc{} || end != last || v < min || v > max) {
    Fail(std::string("option ") + *names.begin() + " needs a whole number " +
         range_text(static_cast<double>(min), static_cast<double>(max)) + ", not \"" + *text +
         "\"");
    return std::nullopt;
  }
  return v;
}

std::optional<std::pair<double, double>> BatchArgs::TakeNumberPair(
    std::initializer_list<const char*> names, double min, double max) {
  std::optional<std::pair<double, double>> pair;
  for (size_t i = 0; i < tokens_.size();) {
    if (!tokens_[i].isOption || !is_one_of(tokens_[i].text, names)) {
      ++i;
      continue;
    }
    const std::string name = tokens_[i].text;
    tokens_.erase(tokens_.begin() + static_cast<std::ptrdiff_t>(i));
    double v[2] = {0.0, 0.0};
    bool good = true;
    for (double& value : v) {
      const bool present = i < tokens_.size() && !tokens_[i].isOption;
      const std::string text = present ? tokens_[i].text : std::string();
      if (present) tokens_.erase(tokens_.begin() + static_cast<std::ptrdiff_t>(i));
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
      good = good && present && !text.empty() && error == std::errc{} &&
             end == text.data() + text.size() && value >= min && value <= max;
    }
    if (!good || v[1] < v[0]) {
      Fail("option " + name + " needs two numbers LOW HIGH " + range_text(min, max) +
           ", LOW not above HIGH");
      continue;
    }
    if (pair) Fail("option " + name + " given twice");
    pair = std::make_pair(v[0], v[1]);
  }
  return pair;
}

bool BatchArgs::Finish(size_t minCount, size_t maxCount) {
  positional_.clear();
  for (const Token& token : tokens_) {
    if (token.isOption) {
      Fail("unknown option " + token.text);
    } else {
      positional_.push_back(token.text);
    }
  }
  tokens_.clear();
  if (ok_ && (positional_.size() < minCount || positional_.size() > maxCount)) {
    const std::string expected = minCount == maxCount
                                     ? std::to_string(minCount)
                                     : std::to_string(minCount) + " to " + std::to_string(maxCount);
    Fail("expects " + expected + " argument(s), got " + std::to_string(positional_.size()));
  }
  if (!ok_)
    std::fprintf(stderr, "Run 'quorix-batch %s --help' for its usage.\n", command_.c_str());
  return ok_;
}

bool BatchWantsHelp(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "--") return false;
    if (arg == "--help" || arg == "-h") return true;
  }
  return false;
}
