// subject.cc - see subject.hh.
#include "subject.hh"

#include <algorithm>

#include "fmt/format.h"
#include "mqcat/failure.hh"

namespace mqbridge {
namespace {

constexpr std::pair<std::string_view, std::string_view SubjectValues::*> kNames[] = {
    {"user", &SubjectValues::user},
    {"application", &SubjectValues::application},
    {"command", &SubjectValues::command},
    {"peer", &SubjectValues::peer},
};

bool IsWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool IsHeaderCharacter(char c) { return c >= ' ' && c <= '~' && c != '%'; }

std::string Escape(std::string_view value, bool (*stays)(char)) {
  std::string text;
  for (const char c : value) {
    stays(c) ? text += c : text += fmt::format("%{:02X}", static_cast<unsigned char>(c));
  }
  return text;
}

[[noreturn]] void Refuse(const std::string& text, const std::string& why) {
  throw mqcat::Failure{mqcat::kExitUsage, fmt::format("subject {}: {}", text, why)};
}

std::string_view NextToken(std::string_view& rest) {
  const size_t dot = rest.find('.');
  const std::string_view token = rest.substr(0, dot);
  rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
  return token;
}

}  // namespace

std::string SubjectToken(std::string_view value) { return value.empty() ? "%" : Escape(value, IsWordCharacter); }

std::string HeaderValue(std::string_view value) { return Escape(value, IsHeaderCharacter); }

bool IsSubject(std::string_view subject) {
  if (subject.empty() || subject.front() == '.' || subject.back() == '.') return false;
  const auto is_bad = [](char c) { return c <= ' ' || c == 0x7f || c == '*' || c == '>'; };
  return subject.find("..") == std::string_view::npos && std::none_of(subject.begin(), subject.end(), is_bad);
}

bool Matches(std::string_view pattern, std::string_view subject) {
  while (!pattern.empty() && !subject.empty()) {
    const std::string_view wanted = NextToken(pattern);
    if (wanted == ">") return true;
    const std::string_view token = NextToken(subject);
    if (wanted != "*" && wanted != token) return false;
  }
  return pattern.empty() && subject.empty();
}

SubjectTemplate::SubjectTemplate(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t open = std::min(text.find('{', at), text.size());
    if (open > at) parts_.push_back({text.substr(at, open - at), nullptr});
    if (open == text.size()) break;
    const size_t close = text.find('}', open);
    if (close == std::string::npos) Refuse(text, "a '{' has no '}'");
    const std::string name = text.substr(open + 1, close - open - 1);
    const auto* const known =
        std::find_if(std::begin(kNames), std::end(kNames), [&](const auto& entry) { return entry.first == name; });
    if (known == std::end(kNames)) {
      Refuse(text, fmt::format("{{{}}} is none of {{user}}, {{application}}, {{command}}, {{peer}}", name));
    }
    parts_.push_back({"", known->second});
    at = close + 1;
  }
  if (!IsSubject(Make({"u", "a", "1", "p"}))) Refuse(text, "not a subject that can be published to");
  const std::string first = text.substr(0, text.find('.'));
  if (first.find('{') != std::string::npos || first[0] == '$' || first[0] == '_') {
    Refuse(text, "must begin with a fixed word that the cluster does not keep to itself, such as mq.");
  }
}

std::string SubjectTemplate::Make(const SubjectValues& values) const {
  std::string subject;
  for (const Part& part : parts_) {
    subject += part.value == nullptr ? part.text : SubjectToken(values.*part.value);
  }
  return subject;
}

}  // namespace mqbridge
