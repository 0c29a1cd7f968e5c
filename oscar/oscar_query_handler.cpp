#include "oscar/oscar_query_handler.h"

#include "base/charset.h"
#include "base/ignore_result.h"
#include "base/snprintf_t.h"
#include "oscar/guarded_regex.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/oscar_cmd_handler.h"

#include <ace/Log_Msg.h>
#include <boost/algorithm/string.hpp>

namespace
{
const int Header_Lines = 2;

// "(12 rows)". The first test spares nearly all lines the regular expression.
bool is_footer(const std::string& line)
{
  if (line.front() != '(')
    return false;
  boost::smatch groups;
  return oscar::guarded_regex_match(line, groups, RE_END_LINE);
}
} // namespace

Oscar_Query_Handler::Isql_Query_Line_Handler::Isql_Query_Line_Handler(std::ostream& output,
                                                                      Result_type* results)
    : Text_Process_Handler(0, 60), headers_(Header_Lines), output_(output), results_(results)
{
}

Oscar_Query_Handler::Isql_Query_Line_Handler::~Isql_Query_Line_Handler() = default;

void Oscar_Query_Handler::Isql_Query_Line_Handler::expect_headers()
{
  headers_ = Header_Lines;
}

int Oscar_Query_Handler::Isql_Query_Line_Handler::handle_stdout_line(const char* line, unsigned int length)
{
  if (line == nullptr || length == 0) {
    OSCAR_LOG_NULL_OR_EMPTY("line");
    return -1;
  }
  std::string text(line, length);
  if (output_.tellp() < static_cast<std::streamoff>(Max_Output_Bytes))
    output_ << text << '\n';
  if (headers_ > 0) {
    --headers_;
    return 0;
  }
  if (is_footer(text))
    return 0;
  boost::trim(text);
  if (text.empty())
    return 0;
  // The cells stay padded: whoever uses one trims it. Normalising the blanks around the separators here would
  // change what callers compare, and a regular expression for it costs nine tenths of the throughput.
  results_->emplace_back();
  boost::split(results_->back(), text, boost::is_any_of("|"), boost::token_compress_on);
  return 0;
}

Oscar_Query_Handler::Oscar_Query_Handler() : handler_(output_, &results_), opts_(true, 1024, 16384, 512, 128)
{
}

Oscar_Query_Handler::Oscar_Query_Handler(const std::string& oscar_home, const std::string& instance,
                                         const std::string& username, const std::string& password,
                                         unsigned short port, const std::string& host)
    : handler_(output_, &results_), oscar_home_(oscar_home), instance_(instance), username_(username),
      password_(password), port_(port), host_(host), opts_(true, 1024, 16384, 512, 128)
{
  kestrel::ignore_result(set_process_opts(oscar_home.c_str(), opts_), "select() refuses an empty home again");
}

bool Oscar_Query_Handler::reset(const std::string& oscar_home, const std::string& instance,
                                const std::string& username, const std::string& password, unsigned short port)
{
  oscar_home_ = oscar_home;
  instance_ = instance;
  username_ = username;
  password_ = password;
  port_ = port;
  return set_process_opts(oscar_home_.c_str(), opts_);
}

bool Oscar_Query_Handler::select(const char* sql)
{
  if (oscar_home_.empty() || instance_.empty() || username_.empty() || password_.empty()) {
    ACE_ERROR((LM_ERROR, "Lack of connection parameter.\n"));
    return false;
  }
  results_.clear();
  handler_.expect_headers();
  const snprintf_t<4096> command("isql -U%s/%s -h%s -d%s -p%hu -c \"%s\"", username_.c_str(),
                                 password_.c_str(), host_.c_str(), instance_.c_str(), port_, sql ? sql : "");
  const std::string program = oscar_home_ + "/bin/" + command.c_str();
  // A statement that is too long is cut by the options, and isql says what is wrong with the rest.
  kestrel::ignore_result(opts_.command_line("%s", UTF16_String(program.c_str()).c_local()), "cut on purpose");
  return handler_.call(6, opts_) == 0;
}

bool Oscar_Query_Handler::select(const std::string& sql)
{
  return select(sql.c_str());
}

std::string Oscar_Query_Handler::output() const
{
  return output_.str();
}

const Oscar_Query_Handler::Result_type& Oscar_Query_Handler::result() const
{
  return results_;
}
