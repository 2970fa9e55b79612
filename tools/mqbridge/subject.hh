// subject.hh - subjects of the cluster, made from what a message states about its sender.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mqbridge {

// Values that a template may refer to.
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

// Whether the subject matches the pattern, which may have wildcards.
bool Matches(std::string_view pattern, std::string_view subject);

// A template such as mq.{user}.{command}.
class SubjectTemplate {
 public:
  // Throws a Failure for unknown names, for an invalid subject, and unless the first token is a fixed text: a client
  // could otherwise choose subjects that the cluster reserves.
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
