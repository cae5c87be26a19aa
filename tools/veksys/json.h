// JSON in two shapes: documents, indented, for what is one answer; lines (json_line.h) for streams of records.
#pragma once

#include <rapidjson/prettywriter.h>

#include <string>
#include <string_view>
#include <type_traits>

#include "json_line.h"
#include "output.h"

namespace veksys {

// What the writer of documents writes into.
class JsonSink {
 public:
  using Ch = char;
  void direct(Text& text) noexcept { text_ = &text; }
  void Put(char c) { text_->put(c); }
  void Flush() {}

 private:
  Text* text_ = nullptr;
};

// An indented document: members of objects, by the type of their value.
class JsonDocument : public rapidjson::PrettyWriter<JsonSink> {
 public:
  JsonDocument() {
    this->SetIndent(' ', 2);
    this->SetFormatOptions(rapidjson::kFormatDefault);  // this constructor of the writer leaves them open
  }

  // Begins an object of its own in `text`. The writer can be used for one object after the other.
  void begin(Text& text) {
    sink_.direct(text);
    this->Reset(sink_);
    this->StartObject();
  }

  void value(std::string_view text) { this->String(text.data(), static_cast<rapidjson::SizeType>(text.size())); }
  void value(const char* text) { text == nullptr ? static_cast<void>(this->Null()) : value(std::string_view(text)); }
  void value(const std::string& text) { value(std::string_view(text)); }
  void value(bool truth) { this->Bool(truth); }
  void value(double number) { this->Double(number); }
  template <class T>
  requires std::is_integral_v<T>
  void value(T number) {
    if constexpr (std::is_signed_v<T>)
      this->Int64(number);
    else
      this->Uint64(number);
  }

  void key(std::string_view name) { this->Key(name.data(), static_cast<rapidjson::SizeType>(name.size())); }
  template <class T>
  void member(std::string_view name, const T& content) {
    key(name);
    value(content);
  }
  void array(std::string_view name) {
    key(name);
    this->StartArray();
  }
  void object(std::string_view name) {
    key(name);
    this->StartObject();
  }

 private:
  JsonSink sink_;
};

}  // namespace veksys
