#include "FunctionMeasurer.h"

#include <cstdio>

#include "KSTime.h"

int FunctionMeasurer::s_Level = 0;

FunctionMeasurer::FunctionMeasurer(const char* name)
    : name_(name != nullptr ? name : ""), start_(nanoTime()) {
    printf("%s%s()\n", indent().c_str(), name_);
    fflush(stdout);
    ++s_Level;
}

FunctionMeasurer::~FunctionMeasurer() {
    --s_Level;
    measure(nullptr);
}

std::string FunctionMeasurer::indent() {
    return std::string(s_Level > 0 ? static_cast<size_t>(s_Level) * 4 : 0, ' ');
}

double FunctionMeasurer::measure(const char* label) {
    double ms = nanoToMilisec(nanoTime() - start_);
    if (label != nullptr)
        printf("%s%s - %s: %fms\n", indent().c_str(), name_, label, ms);
    else
        printf("%s%s: %fms\n", indent().c_str(), name_, ms);
    fflush(stdout);
    return ms;
}
