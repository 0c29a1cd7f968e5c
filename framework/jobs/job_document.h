#pragma once

#include <string>
#include <yajl/yajl_gen.h>

/// Base of a job's parsed source document. The derived class belongs to the module whose parser made it.
/// Threads: immutable while a job uses it.
class Job_Source
{
public:
  virtual ~Job_Source();
  /// Writes the document as one JSON value and returns 0.
  virtual int generate(yajl_gen_t* gen) const = 0;

  const std::string& id() const { return id_; }
  const std::string& name() const { return name_; }
  void id(std::string value) { id_ = std::move(value); }
  void name(std::string value) { name_ = std::move(value); }

private:
  std::string id_;
  std::string name_;
};

/// Base of a job's parsed options document; as Job_Source, but without an identity.
class Job_Options
{
public:
  virtual ~Job_Options();
  /// Writes the document as one JSON value and returns 0. Not const: that is the shape modules implement.
  virtual int generate(yajl_gen_t* gen) = 0;
};
