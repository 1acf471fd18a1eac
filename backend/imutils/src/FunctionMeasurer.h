#pragma once

#include <cstdint>
#include <string>

// Scope timer for tracing: prints "<indent>name()" on construction and
// "<indent>name: <ms>ms" on destruction to standard output, indenting nested timers by four
// blanks per level. The nesting level is one process-wide counter, so nested output is only
// meaningful for single-threaded tracing. name is borrowed and must outlive the measurer.
class FunctionMeasurer {
  public:
    explicit FunctionMeasurer(const char* name);
    ~FunctionMeasurer();

    FunctionMeasurer(const FunctionMeasurer&) = delete;
    FunctionMeasurer& operator=(const FunctionMeasurer&) = delete;

    // Milliseconds since construction; prints "<indent>name - label: <ms>ms", leaving out
    // " - label" when label is null.
    double measure(const char* label);

    // 4 x the current nesting level in blanks.
    static std::string indent();

    static int s_Level;

  private:
    const char* name_;
    int64_t start_;
};
