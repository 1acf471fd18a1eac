#pragma once

#include <string>

namespace kelp {
namespace db {

// One column of a row of a text query: its name, its text and whether it was NULL (then the text
// is empty). A plain value type.
class SqlField {
  public:
    // A NULL field.
    explicit SqlField(std::string name) : name_(std::move(name)), null_(true) {}
    // A field with a value.
    SqlField(std::string name, std::string value)
        : name_(std::move(name)), value_(std::move(value)), null_(false) {}

    const std::string& name() const { return name_; }
    const std::string& value() const { return value_; }
    bool isNull() const { return null_; }

  private:
    std::string name_;
    std::string value_;
    bool null_;
};

}  // namespace db
}  // namespace kelp
