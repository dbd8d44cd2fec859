// The command as its users meet it: a line of the shell in, files, lines and an exit code out.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "tests/temporary_directory.h"

namespace hxtest {

class CommandFixture : public testing::Test {
 protected:
  // Runs the line in the temporary directory, up to what fails; out_ and err_ get what it prints.
  void expectRun(int code, const std::string& line) {
    const std::string bin = std::filesystem::path(HX_COMMAND_PATH).parent_path();
    const TemporaryDirectory said;
    const std::string whole = "set -e; cd '" + directory_.path().string() + "'; PATH='" + bin +
                              "':$PATH; {\n" + line + "\n} >'" + said / "out' 2>'" + said / "err'";
    const int status = std::system(whole.c_str());
    out_ = readFile(said / "out");
    err_ = readFile(said / "err");
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, code) << line << '\n' << err_;
  }

  void expectPrinted(int code, const std::string& line, const std::string& out,
                     const std::string& err = "") {
    expectRun(code, line);
    EXPECT_EQ(out_, out) << line;
    EXPECT_EQ(err_, err) << line;
  }

  void expectSaid(const std::string& part) {
    EXPECT_NE(err_.find(part), std::string::npos) << part << " is not in\n" << err_;
  }

  // Whatever happened, nothing half made stays.
  void TearDown() override { expectPrinted(0, "find . -name '.hxcrate*'", ""); }

  TemporaryDirectory directory_;
  std::string out_;
  std::string err_;
};

}  // namespace hxtest
