#include <zuhost/zuerror.h>

namespace ZU {

ZUError::ZUError(const std::string& module, const std::string& method,
                 const std::string& description, const std::string& sourceFile, unsigned int line)
    : module_(module),
      method_(method),
      description_(description),
      sourceFile_(sourceFile),
      line_(line),
      text_("ZUError: " + module + "::" + method + ": " + description + " (" + sourceFile + ":" +
            std::to_string(line) + ")") {}

}  // namespace ZU
