// subject.hh - subjects of the cluster, made from what a message says of its sender.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mqbridge {

// What a template may name.
struct SubjectValues {
  std::string_view user, application, command, peer;
};

// A value as one token of a subject: letters, digits, '-' and '_' as they are, any other byte as '%' and two
// hexadecimal digits, an empty value as "%". Different values never give the same token.
std::string SubjectToken(std::string_view value);

// A value for a header: printable ASCII but '%' as it is, any other byte as '%' and two hexadecimal digits.
std::string HeaderValue(std::string_view value);

// Whether messages can be published to the subject: tokens between single dots, no blanks, no wildcards.
bool IsSubject(std::string_view subject);

// Whether the subject is one of those that the pattern, which may have wildcards, stands for.
bool Matches(std::string_view pattern, std::string_view subject);

// A template such as mq.{user}.{command}.
class SubjectTemplate {
 public:
  // Throws a Failure for unknown names, for a subject that cannot be one, and when the first token is not a fixed text:
  // a client could choose subjects that the cluster keeps to itself.
  explicit SubjectTemplate(const std::string& text);

  std::string Make(const SubjectValues& values) const;

 private:
  struct Part {
    std::string text;  // fixed, if value is null
    std::string_view SubjectValues::*value = nullptr;
  };
  std::vector<Part> parts_;
};

}  // namespace mqbridge
