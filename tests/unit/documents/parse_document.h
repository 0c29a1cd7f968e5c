#pragma once

#include "json/yajl_gen.h"
#include "json/yajl_handler.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrel_test
{
/// Passes a document to the parser, any top-level value, and returns its error code; 0 means accepted.
template <class Parser> int parse(Parser& parser, const std::string& text)
{
  std::string error;
  const bool done =
      kestrel::dispatch_json(text, kestrel::json_network_limits(), kestrel::Json_Top::any, parser, error);
  EXPECT_EQ(done, parser.error() == 0) << text << ": " << error;
  return parser.error();
}

/// The document that the parser made, as text.
template <class Parser> std::string generated(Parser& parser)
{
  kestrel::Json_Generator generator;
  EXPECT_EQ(parser.result()->generate(generator.handle()), 0);
  return generator.text();
}
} // namespace kestrel_test
