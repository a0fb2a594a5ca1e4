#include "report.h"

#include <cstdio>

namespace rpktool {

namespace {

constexpr size_t kLabelWidth = 24;

Json::Value PrintableValue(const Json::Value& value) {
  if (value.isString()) return Printable(value.asString());
  if (!value.isArray()) return value;
  Json::Value out(Json::arrayValue);
  for (const auto& element : value) out.append(PrintableValue(element));
  return out;
}

std::string TextOf(const Json::Value& value) {
  if (value.isBool()) return value.asBool() ? "yes" : "no";
  return value.asString();
}

}  // namespace

const char* KindName(FailureKind kind) {
  static const char* const kNames[] = {"usage",  "input",      "config",
                                       "output", "filesystem", "verification"};
  return kNames[static_cast<int>(kind)];
}

size_t Utf8Length(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  const size_t length = lead < 0x80           ? 1
                        : (lead >> 5) == 0x6  ? 2
                        : (lead >> 4) == 0xe  ? 3
                        : (lead >> 3) == 0x1e ? 4
                                              : 0;
  if (length == 0 || at + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    if ((byte(at + k) & 0xc0) != 0x80) return 0;
  }
  return length;
}

std::string Printable(const std::string& bytes, bool keep_line_feeds) {
  std::string out;
  for (size_t i = 0; i < bytes.size();) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    const size_t length = Utf8Length(bytes, i);
    if (length == 0 || (c < 0x20 && !(keep_line_feeds && c == '\n')) || c == 0x7f || c == '\\') {
      char escape[5];
      snprintf(escape, sizeof(escape), "\\x%02x", c);
      out += escape;
      ++i;
    } else {
      out.append(bytes, i, length);
      i += length;
    }
  }
  return out;
}

Report& Report::Add(const std::string& key, const std::string& label, const Json::Value& value,
                    const std::string& text) {
  if (!value.isNull()) entries_.push_back({key, label, PrintableValue(value), text, nullptr});
  return *this;
}

Report& Report::Section(const std::string& key, const std::string& label) {
  entries_.push_back({key, label, Json::Value(), "", std::make_unique<Report>()});
  return *entries_.back().section;
}

Report& Report::Item(const std::string& key, const std::string& label) {
  entries_.push_back({key, label, Json::Value(), "", std::make_unique<Report>(), true});
  return *entries_.back().section;
}

void Report::Fail(FailureKind kind, const std::string& message) {
  if (!failure_) failure_ = std::make_unique<Failure>(Failure{kind, message});
}

Json::Value Report::ToJson() const {
  Json::Value out(Json::objectValue);
  for (const Entry& entry : entries_) {
    if (entry.is_item) {
      out[entry.key].append(entry.section->ToJson());
    } else {
      out[entry.key] = entry.section ? entry.section->ToJson() : entry.value;
    }
  }
  if (!warnings_.empty()) {
    for (const auto& warning : warnings_) out["warnings"].append(Printable(warning));
  }
  if (failure_) {
    out["error"]["kind"] = KindName(failure_->kind);
    out["error"]["message"] = Printable(failure_->message, true);
  }
  return out;
}

void Report::RenderText(const std::string& indent, std::string* out) const {
  for (const Entry& entry : entries_) {
    std::string label = indent + entry.label + ":";
    if (entry.section) {
      *out += label + "\n";
      entry.section->RenderText(indent + "  ", out);
      continue;
    }
    label.resize(std::max(kLabelWidth, label.size() + 1), ' ');
    if (!entry.value.isArray()) {
      *out += label + (entry.text.empty() ? TextOf(entry.value) : entry.text) + "\n";
      continue;
    }
    for (const auto& element : entry.value) *out += label + TextOf(element) + "\n";
  }
}

std::string Report::ToText() const {
  std::string out;
  RenderText("", &out);
  return out;
}

}  // namespace rpktool
