#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

// Makes `path` the process's working directory until the scope ends, even when the test fails.
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::string& path) {
        char buffer[4096];
        saved_ = getcwd(buffer, sizeof(buffer)) ? buffer : "/";
        EXPECT_EQ(chdir(path.c_str()), 0) << path;
    }
    ~WorkingDirectory() {
        if (chdir(saved_.c_str()) != 0) ADD_FAILURE() << "cannot return to " << saved_;
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

  private:
    std::string saved_;
};
