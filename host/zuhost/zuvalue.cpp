#include <cstdio>
#include <utility>

#include <zuhost/zuerror.h>
#include <zuhost/zuvalue.h>

namespace ZU {

namespace {
const char* const kFile = "host/src/zuvalue";

void appendQuoted(std::string& out, const std::string& text) {
  out += '"';
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

void serialize(std::string& out, const ZUValue& value) {
  switch (value.type()) {
    case ZUValue::Type::Invalid:
      out += "null";
      break;
    case ZUValue::Type::String:
      appendQuoted(out, value.asString());
      break;
    case ZUValue::Type::Array:
      out += '[';
      for (std::size_t i = 0; i < value.size(); ++i) {
        if (i != 0) out += ',';
        serialize(out, value[i]);
      }
      out += ']';
      break;
  }
}
}  // namespace

ZUValue::ZUValue(const std::string& text) : type_(Type::String), string_(text) {}
ZUValue::ZUValue(const char* text) : type_(Type::String), string_(text) {}

const std::string& ZUValue::asString() const {
  if (type_ != Type::String)
    throw ZUError("ZUValue", "asString", "value is not a string", kFile, __LINE__);
  return string_;
}

std::size_t ZUValue::size() const { return type_ == Type::Array ? array_.size() : 0; }

const ZUValue& ZUValue::operator[](std::size_t i) const {
  if (type_ != Type::Array || i >= array_.size())
    throw ZUError("ZUValue", "operator[]", "index out of range", kFile, __LINE__);
  return array_[i];
}

void ZUValue::arrayPush(const ZUValue& element) { arrayPush(ZUValue(element)); }

void ZUValue::arrayPush(ZUValue&& element) {
  if (type_ == Type::String)
    throw ZUError("ZUValue", "arrayPush", "cannot push onto a string value", kFile, __LINE__);
  array_.push_back(std::move(element));
  type_ = Type::Array;
}

void ZUValue::arrayPopFront() {
  if (type_ == Type::Array && !array_.empty()) array_.erase(array_.begin());
}

std::string ZUValue::serializeToText() const {
  std::string out;
  serialize(out, *this);
  return out;
}

bool operator==(const ZUValue& a, const ZUValue& b) {
  if (a.type_ != b.type_) return false;
  switch (a.type_) {
    case ZUValue::Type::Invalid:
      return true;
    case ZUValue::Type::String:
      return a.string_ == b.string_;
    case ZUValue::Type::Array:
      return a.array_ == b.array_;
  }
  return false;
}

}  // namespace ZU
