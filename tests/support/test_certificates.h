#pragma once

#include <string>
#include <vector>

namespace kestrel_test
{
/// A certificate and its key as PEM text.
struct Certificate {
  std::string certificate_pem;
  std::string key_pem;
};

/// What a server certificate says. The times are seconds from now.
struct Certificate_Wish {
  std::string common_name = "test server";
  std::vector<std::string> names = {"localhost"};
  std::vector<std::string> addresses = {"127.0.0.1"};
  long valid_from_seconds = -24 * 3600;
  long valid_to_seconds = 24 * 3600;
};

/// A CA that lives for one test, with keys that are quickly made (P-256). What fails, fails the test.
class Certificate_Authority
{
public:
  explicit Certificate_Authority(const std::string& name = "test CA");

  const std::string& ca_pem() const { return ca_.certificate_pem; }
  const Certificate& ca() const { return ca_; }
  Certificate issue(const Certificate_Wish& wish = Certificate_Wish()) const;

private:
  Certificate ca_;
};
} // namespace kestrel_test
