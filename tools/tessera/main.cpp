#include <cstdio>
#include <exception>
#include <new>

#include "Arguments.h"
#include "Commands.h"
#include "Failure.h"
#include "OutputFile.h"
#include "StdoutGuard.h"

namespace {

void run(const tool::Arguments& arguments) {
  void (*const commands[])(const tool::Arguments&) = {
      tool::jpegEncode, tool::jpegDecode, tool::h264Encode, tool::h264Decode, tool::info};
  commands[static_cast<int>(arguments.command)](arguments);
}

int complain(const char* text, int status) {
  std::fprintf(stderr, "tessera: %s\n", text);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  int status = tool::ExitDone;
  try {
    const auto arguments = tool::parseArguments(argc, argv, status);
    if (!arguments) return status;
    tool::StdoutGuard::install();
    tool::OutputFile::removeOnSignals();
    run(*arguments);
    return tool::ExitDone;
  } catch (const tool::BrokenPipe&) {
    // Whoever read has had enough: nothing is wrong, and nobody is left to be told.
    return tool::ExitDone;
  } catch (const tool::Failure& failure) {
    return complain(failure.what(), failure.status());
  } catch (const std::bad_alloc&) {
    return complain("out of memory", tool::ExitFailed);
  } catch (const std::exception& error) {
    return complain(error.what(), tool::ExitFailed);
  }
}
