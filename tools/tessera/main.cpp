#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "Arguments.h"
#include "Commands.h"
#include "Failure.h"
#include "Interrupt.h"
#include "OutputFile.h"
#include "StdoutGuard.h"

namespace {

void run(const tool::Arguments& arguments) {
  void (*const commands[])(const tool::Arguments&) = {
      tool::jpegEncode, tool::jpegDecode, tool::h264Encode, tool::h264Decode, tool::info};
  commands[static_cast<int>(arguments.command)](arguments);
}

int fail(const std::string& text, int status) {
  // The library's own words tell more, but not about wrong usage or an interrupt.
  if (status == tool::ExitFailed) tool::StdoutGuard::showKept();
  std::fprintf(tool::StdoutGuard::messages(), "tessera: %s\n", text.c_str());
  return status;
}

/// @return the exit status
int runFrom(int argc, char** argv) {
  try {
    int status = tool::ExitDone;
    const auto arguments = tool::parseArguments(argc, argv, status);
    if (!arguments) return status;
    tool::StdoutGuard::install();
    tool::StdoutGuard::setVerbose(arguments->verbose);
    tool::OutputFile::removeOnExit();
    tool::Interrupt::install();
    run(*arguments);
    return tool::ExitDone;
  } catch (const tool::BrokenPipe&) {
    // Whoever read has had enough: nothing is wrong, and nobody is left to be told.
    return tool::ExitDone;
  } catch (const tool::Failure& failure) {
    return fail(failure.what(), failure.status());
  } catch (const std::bad_alloc&) {
    return fail("out of memory", tool::ExitFailed);
  } catch (const std::exception& error) {
    return fail(error.what(), tool::ExitFailed);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int status = runFrom(argc, argv);
  tool::StdoutGuard::dropKept();
  return status;
}
