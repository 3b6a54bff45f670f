// kivnet from the arguments to the exit status: parses, runs the exchange, prints the result or
// the failure, and checks that the output was written.
#include "tools/kivnet/Run.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include "Interfaces/KivNetworkComm.h"
#include "tools/kivnet/Channel.h"
#include "tools/kivnet/CommandLine.h"
#include "tools/kivnet/Exchange.h"
#include "tools/kivnet/Relocation.h"
#include "tools/kivnet/Report.h"
#include "tools/kivnet/ResultCodes.h"

namespace kivnet {

namespace {

// What a failure without a result code means, for the JSON error object.
std::string KindMeaning(FailureKind kind) {
  switch (kind) {
  case FailureKind::kCall:
    return "a system call failed";
  case FailureKind::kNoAnswer:
    return "the device did not answer within the wait";
  case FailureKind::kUnreadable:
    return "the device answered, but its answer could not be read";
  case FailureKind::kCutShort:
    return "the answer declares more bytes than arrived";
  case FailureKind::kRefused:
    return "the device refused the configuration";
  case FailureKind::kHost:
    return "the host lacks what the command needs";
  case FailureKind::kOpenRefused:
    return "the device refused the open request";
  case FailureKind::kBadFrame:
    return "the device sent a bad frame header; the channel cannot be read any further";
  case FailureKind::kEndedEarly:
    return "the channel ended before the frames asked for";
  case FailureKind::kNone:
    break;
  }
  return "";
}

// The two output streams of one run. Results are flushed as they are written, so a listing
// grows line by line on a pipe too; the first failed write is remembered.
class Output {
public:
  Output(std::FILE *out, std::FILE *err) : mOut(out), mErr(err) {}

  void Out(const std::string &text) {
    if (mWriteError == 0 && (std::fputs(text.c_str(), mOut) == EOF || std::fflush(mOut) == EOF)) {
      mWriteError = errno != 0 ? errno : EIO;
    }
  }

  std::FILE *err() const { return mErr; }

  // "kivnet: COMMAND: <line>" on the error stream; `line` ends without a line break.
  void Err(const std::string &command, const std::string &line) {
    std::fprintf(mErr, "kivnet: %s%s%s\n", command.c_str(), command.empty() ? "" : ": ",
                 line.c_str());
    std::fflush(mErr);
  }

  // `status`, or kExitFailure with an error line when a result could not be written.
  int Finish(const std::string &command, int status) {
    if (mWriteError == 0) {
      return status;
    }
    Err(command, std::string("cannot write the output: ") + std::strerror(mWriteError));
    return status == kExitSuccess || status == kExitNothingFound ? kExitFailure : status;
  }

private:
  std::FILE *mOut;
  std::FILE *mErr;
  int mWriteError = 0;
};

// The stage of a relocation on one line of a terminal, redrawn a few times a second while the
// relocation blocks, and cleared when it ends.
class ProgressLine {
public:
  ProgressLine(std::FILE *terminal, const RelocationPlan &plan)
      : mTerminal(terminal), mPlan(plan), mStart(std::chrono::steady_clock::now()),
        mThread([this] { Draw(); }) {}
  ~ProgressLine() {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mDone = true;
    }
    mWake.notify_all();
    mThread.join();
    std::fputs("\r\033[K", mTerminal);
    std::fflush(mTerminal);
  }
  ProgressLine(const ProgressLine &) = delete;
  ProgressLine &operator=(const ProgressLine &) = delete;

private:
  void Draw() {
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mDone) {
      const double elapsed =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - mStart).count();
      // "\r" and erase to the end of the line: the stage replaces the one before.
      std::fprintf(mTerminal, "\r\033[Kkivnet: relocate: %s",
                   RelocationStage(mPlan, elapsed).c_str());
      std::fflush(mTerminal);
      mWake.wait_for(lock, std::chrono::milliseconds(200));
    }
  }

  std::FILE *mTerminal;
  const RelocationPlan &mPlan;
  const std::chrono::steady_clock::time_point mStart;
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mDone = false;
  std::thread mThread; // last: starts once the fields above are ready
};

// The run of one parsed command line.
class Runner : public DiscoveryListener, public ChannelWatcher {
public:
  Runner(const CommandLine &line, Output &output)
      : mLine(line), mOutput(output), mCommand(CommandName(line.command)) {}

  int Run() {
    switch (mLine.command) {
    case Command::kDiscover:
      return Discovering();
    case Command::kPing: {
      PingAnswer answer;
      const Failure failure = Ping(mLine, answer);
      return failure.failed() ? Failed(failure) : Print(PingJson(answer), PingText(answer));
    }
    case Command::kStatus: {
      StatusAnswer answer;
      const Failure failure = Status(mLine, answer);
      if (failure.failed()) {
        return Failed(failure);
      }
      NotePossiblyCut(answer.possiblyCut, answer.from, answer.fromPort);
      return Print(StatusJson(answer), StatusText(answer));
    }
    case Command::kSetIp: {
      ConfigAnswer answer;
      const Failure failure = SetIp(mLine, answer);
      if (failure.failed()) {
        return Failed(failure);
      }
      NotePossiblyCut(answer.possiblyCut, answer.from, answer.fromPort);
      return Print(ConfigJson(answer, mLine.mac), ConfigText(answer, mLine.mac));
    }
    case Command::kHostInfo: {
      HostInfo host;
      const Failure failure = ReadHostInfo(mLine.interfaceName, host);
      return failure.failed() ? Failed(failure) : Print(HostInfoJson(host), HostInfoText(host));
    }
    case Command::kChannel:
      return Watching();
    case Command::kQueryMac: {
      MacAnswer answer;
      QueryMac(mLine, answer);
      mOutput.Out(mLine.json ? MacJson(answer) : MacText(answer));
      return answer.mac.empty() ? kExitNothingFound : kExitSuccess;
    }
    case Command::kRelocate:
      return Relocating();
    case Command::kNone:
      break;
    }
    mOutput.Out(HelpText(Command::kNone));
    return kExitSuccess;
  }

  // Anything thrown that no exchange turned into a failure (memory exhausted, above all).
  int Unexpected(const std::string &what) {
    Failure failure;
    failure.kind = FailureKind::kCall;
    failure.detail = what;
    return Failed(failure);
  }

  void Found(const FoundDevice &device) override {
    if (mLine.jsonLines) {
      mOutput.Out(DeviceJsonLine(device));
    } else if (!mLine.json) {
      if (!mHeaderPrinted) {
        mOutput.Out(DiscoveryHeader());
        mHeaderPrinted = true;
      }
      mOutput.Out(DiscoveryRow(device));
    }
    NotePossiblyCut(device.possiblyCut, device.from, device.fromPort);
  }

  void Unread(const UnreadAnswer &answer) override {
    std::string line = UnreadLine(answer);
    line.pop_back();
    mOutput.Err(mCommand, line);
    if (mLine.jsonLines) {
      mOutput.Out(UnreadJsonLine(answer));
    }
  }

  void Opened(const std::string &address, int port, int endPoint) override {
    mOutput.Out(mLine.json ? ChannelOpenedJson(address, port, endPoint)
                           : ChannelOpenedText(address, port, endPoint));
  }

  void Sent(const std::string &bytes) override {
    mOutput.Out(mLine.json ? ChannelSentJson(bytes) : ChannelSentText(bytes));
  }

  void Frame(const ChannelFrame &frame) override {
    mOutput.Out(mLine.json ? ChannelFrameJson(frame) : ChannelFrameText(frame));
  }

private:
  int Watching() {
    ChannelEnd end;
    const Failure failure = WatchChannel(mLine, *this, end);
    if (failure.failed()) {
      return Failed(failure);
    }
    mOutput.Out(mLine.json ? ChannelEndJson(end) : ChannelEndText(end));
    return end.reason == ChannelEndReason::kInterrupted ? kExitSignalBase + end.signal
                                                        : kExitSuccess;
  }

  int Relocating() {
    const RelocationPlan plan = PlanRelocation(mLine);
    RelocationResult result;
    {
      // The relocation gives no progress and may take seconds: a person at a terminal is shown
      // the stage it is in by the time passed; a script or --json gets nothing of it.
      std::unique_ptr<ProgressLine> progress;
      if (!mLine.json && isatty(fileno(mOutput.err()))) {
        progress.reset(new ProgressLine(mOutput.err(), plan));
      }
      Relocate(plan, result);
    }
    mOutput.Out(mLine.json ? RelocationJson(plan, result) : RelocationText(plan, result));
    return result.found ? kExitSuccess : kExitNothingFound;
  }

  int Discovering() {
    Discovery discovery;
    const Failure failure = Discover(mLine, discovery, this);
    if (failure.failed()) {
      return Failed(failure);
    }
    if (mLine.jsonLines) {
      mOutput.Out(SummaryJsonLine(discovery));
    } else {
      mOutput.Out(mLine.json ? DiscoveryJson(discovery) : DiscoverySummary(discovery));
    }
    return discovery.devices.empty() ? kExitNothingFound : kExitSuccess;
  }

  int Print(const std::string &json, const std::string &text) {
    mOutput.Out(mLine.json ? json : text);
    return kExitSuccess;
  }

  void NotePossiblyCut(bool possiblyCut, const std::string &from, int port) {
    if (possiblyCut) {
      std::string line = PossiblyCutLine(from, port);
      line.pop_back();
      mOutput.Err(mCommand, line);
    }
  }

  int Failed(const Failure &failure) {
    mOutput.Err(mCommand, failure.Describe());
    if (mLine.json || mLine.jsonLines) {
      ErrorReport report;
      report.text = failure.Describe();
      report.kind = KindName(failure.kind);
      report.function = failure.function;
      report.code = failure.code;
      report.meaning = failure.code != 0 ? DescribeCode(failure.code) : KindMeaning(failure.kind);
      report.system = failure.SystemReason();
      report.exitStatus = kExitFailure;
      // The channel's --json prints one object a line; its failure is one line too.
      mOutput.Out(ErrorJson(report, mLine.jsonLines || mLine.command == Command::kChannel));
    }
    return kExitFailure;
  }

  const CommandLine &mLine;
  Output &mOutput;
  const std::string mCommand;
  bool mHeaderPrinted = false;
};

} // namespace

int RunKivnet(const std::vector<std::string> &args, std::FILE *out, std::FILE *err) {
  Output output(out, err);
  CommandLine line;
  std::string error;
  if (!ParseCommandLine(args, line, error)) {
    const std::string command = CommandName(line.command);
    output.Err("", error + " (see 'kivnet " + (command.empty() ? "" : command + " ") + "--help')");
    if (AsksForJson(args)) {
      ErrorReport report;
      report.text = error;
      report.kind = "usage";
      report.meaning = "the command line is wrong";
      report.exitStatus = kExitUsage;
      const bool oneLine = std::find(args.begin(), args.end(), "--json-lines") != args.end() ||
                           line.command == Command::kChannel;
      output.Out(ErrorJson(report, oneLine));
    }
    return output.Finish("", kExitUsage);
  }
  if (line.help) {
    output.Out(HelpText(line.command));
    return output.Finish("", kExitSuccess);
  }
  if (line.version) {
    output.Out(VersionText(KIVNETWORKCOMM_VERSION, GetKivNetworkCommVersion()));
    return output.Finish("", kExitSuccess);
  }
  Runner runner(line, output);
  int status = kExitFailure;
  try {
    status = runner.Run();
  } catch (const std::exception &e) {
    status = runner.Unexpected(e.what());
  }
  return output.Finish(CommandName(line.command), status);
}

} // namespace kivnet
