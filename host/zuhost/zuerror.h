#pragma once

#include <exception>
#include <string>

namespace ZU {

/// The host's exception: which module and method failed, why, and where.
///
/// Thread safety: immutable after construction; safe to share between threads.
class ZUError : public std::exception {
 public:
  ZUError(const std::string& module, const std::string& method, const std::string& description,
          const std::string& sourceFile, unsigned int line);

  const std::string& getModule() const { return module_; }
  const std::string& getMethod() const { return method_; }
  const std::string& getDescription() const { return description_; }
  const std::string& getSourceFile() const { return sourceFile_; }
  unsigned int getLine() const { return line_; }

  /// One line: `ZUError: <module>::<method>: <description> (<file>:<line>)`.
  const std::string& toString() const { return text_; }
  /// The same text as `toString()`.
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string module_;
  std::string method_;
  std::string description_;
  std::string sourceFile_;
  unsigned int line_;
  std::string text_;
};

}  // namespace ZU
