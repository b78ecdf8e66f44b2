#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/constants.h"
#include "task/PackedArguments.h"

/// The record of one periodic task: what to run, when, how often to retry, and the output of the
/// last run. Shared by the timer, the workers, the loader and the purge.
///
/// Scalar accessors read or store an atomic and never wait. String accessors take the record's
/// mutex, which is held for the whole run of the plugin, so they wait until it has ended. The
/// exceptions are named below. Times are whole seconds since the epoch, periods and delays
/// seconds; the record has no sub-second precision.
class serviceSafe {
 public:
  serviceSafe() = default;
  /// Copies every field, the strings through the source's locked getters; the mutex is a new one.
  serviceSafe(const serviceSafe& other);
  serviceSafe& operator=(const serviceSafe&) = delete;
  virtual ~serviceSafe() = default;

  unsigned long GetDevice_id() const { return Device_id; }
  void SetDevice_id(unsigned long id) { Device_id = id; }
  int GetPlugin_id() const { return Plugin_id; }
  void SetPlugin_id(int id) { Plugin_id = id; }

  unsigned long long GetService_id() const { return Service_id; }
  std::string GetService_idStr() const;
  /// Stores `id` and its decimal text, under the lock.
  void SetService_id(unsigned long long id);
  /// Stores `text` and the number that it begins with. Throws std::invalid_argument without a
  /// number and std::out_of_range beyond 64 bits; the text is stored then, and the record is left
  /// locked: every locked accessor waits from then on.
  void SetService_id(std::string text);

  /// 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN; 4 and 5 are passed through from the plugin.
  int GetReturnCode() const { return ReturnCode; }
  void SetReturnCode(int code) { ReturnCode = code; }
  int GetLastValidateReturnCode() const { return LastValidateReturnCode; }
  /// Copies the return code into the last validated one. Takes no lock.
  void validateReturnCode() { LastValidateReturnCode = ReturnCode.load(); }

  long Getlast_exec_time() const { return last_exec_time; }
  void Setlast_exec_time(long time) { last_exec_time = time; }

  unsigned int Getinterval_exec_time() const { return interval_exec_time; }
  /// Stores the interval and the cost computed from it, under the lock. Throws
  /// std::invalid_argument for 0 and changes nothing then.
  void Setinterval_exec_time(unsigned int seconds);

  timeval GetExecTime() const { return {GetExecTimeSec(), GetExecTimeuSec()}; }
  long GetExecTimeSec() const { return ExecTime; }
  long GetExecTimeuSec() const { return 0; }
  /// Keeps the seconds only.
  void SetExecTime(timeval time) { SetExecTime(static_cast<long>(time.tv_sec)); }
  void SetExecTime(long time) { ExecTime = time; }

  float GetCost() const { return Cost; }
  void SetCost(float cost) { Cost = cost; }

  int GetRetrie() const { return Retrie; }
  void SetRetrie(int count) { Retrie = count; }
  int GetMaxRetrie() const { return MaxRetrie; }
  void SetMaxRetrie(int count) { MaxRetrie = count; }
  int GetRetrieTime() const { return RetrieTime; }
  void SetRetrieTime(int seconds) { RetrieTime = seconds; }

  /// 0 normal, 1 updated while known, 3 deleted or replaced: a worker that takes it drops the task.
  char GetExecState() const { return ExecState; }
  void SetExecState(char state) {
    isDropped = state == kRecordDropped;
    ExecState = state;
  }
  /// Sets state 3 again when execute has cleared it: the mark came after the worker had looked at
  /// the state. For the worker, before it puts the task back.
  void restoreDrop() {
    if (isDropped) {
      ExecState = kRecordDropped;
    }
  }

  std::string Getname() const;
  /// The name itself. Takes no lock: for the thread that holds the record's last reference.
  const std::string& unlockedName() const { return name; }
  void Setname(std::string text);
  std::string Getpath() const;
  void Setpath(std::string text);
  std::string GetStdout() const;
  /// The output itself, however large, until it changes. Takes no lock: for the worker that runs
  /// the task, between a run and clearOutput.
  const std::string& unlockedStdout() const { return Stdout; }
  /// Frees the storage of the previous output.
  void SetStdout(std::string text);
  /// Empties the output but keeps its storage. Takes no lock: for the worker between two runs. A
  /// concurrent GetStdout copies the output, or the same number of bytes beginning with a NUL.
  /// Tested by ServiceSafeTest.EmptiesTheOutputWhileItIsCopied.
  void clearOutput() { Stdout.clear(); }

  std::string Getparameter() const;
  /// Stores the plugin's parameter string and splits it into arguments: a space separates, either
  /// kind of quote switches quoting on or off and is dropped, nothing escapes, empty arguments are
  /// left out. The text is stored before the lock is taken. When memory runs out the record is
  /// left locked, with the arguments found so far.
  void Setparameter(std::string text);
  /// A copy of the arguments. Takes no lock, so it must not run beside Setparameter.
  std::vector<std::string> GetVectorParam() const { return parameterVector.toVector(); }

  /// By ExecTime alone.
  bool operator<(const serviceSafe& other) const { return ExecTime < other.ExecTime; }
  bool operator>(const serviceSafe& other) const { return ExecTime > other.ExecTime; }

  /// True when the ExecTimes differ, or this interval differs from the other's ExecTime: that is,
  /// for any real update.
  bool isTimeParameterUpdate(const serviceSafe& other) const;
  bool isTimeParameterUpdate(const std::shared_ptr<serviceSafe>& other) const;

  /// Takes over the definition of `other`, which must be another record: name, parameters, path,
  /// retry fields, interval, ExecTime; sets ExecState to 1. Returns 1 when the interval or the
  /// ExecTime was taken over, else 0. Locks this record, then the other. Throws
  /// std::invalid_argument for an interval of 0; interval and ExecTime stay as they were then.
  int updateServiceParameter(const serviceSafe& other);
  int updateServiceParameter(const std::shared_ptr<serviceSafe>& other);

  /// Runs the plugin once, to its end, however long that takes, with the record locked. Returns
  /// the return code and stores it, and what the plugin printed (invalid UTF-8 replaced by
  /// blanks). Throws serviceSafeException when the plugin could not be run, was killed or printed
  /// nothing. The lock is released then and the record keeps:
  ///   no pipe:                 everything as it was;
  ///   no child, no read:       ExecState 0, an empty output, the return code of before;
  ///   no waitpid:              the same, with what was read as the output;
  ///   killed, or stopped:      return code 3, "Error: kodu can't execute " and the path;
  ///   nothing printed, or "''": return code 3, that text, or one for exit codes above 5.
  int execute();

 private:
  class Pipe;

  // The steps of execute, in its order. Caller holds mutex.

  /// The text of a failure: `prefix`, name, path, parameters, `detail`.
  std::string failureText(std::string_view prefix, std::string_view detail) const;
  /// Starts the plugin with its standard output in `pipe` and returns its pid.
  int startPlugin(Pipe& pipe) const;
  /// All that the plugin prints until the last holder of its standard output closes it.
  std::string readOutput(Pipe& pipe) const;
  /// Waits until the plugin has ended, or is stopped or continued; returns waitpid's status.
  int waitForPlugin(int pid, Pipe& pipe) const;
  /// The plugin's exit code, by waitpid's status. Throws when the plugin was killed or stopped.
  int exitCodeOf(int status);
  /// Throws when the plugin printed nothing, and leaves a text in Stdout for an unusual exit code.
  void requireOutput(int exitCode);

  std::atomic<std::uint64_t> Device_id = 0;
  std::atomic<std::int32_t> Plugin_id = 0;
  std::atomic<std::uint64_t> Service_id = 0;
  std::atomic<std::int32_t> ReturnCode = 0;
  std::atomic<std::int32_t> LastValidateReturnCode = 0;
  std::atomic<std::int64_t> last_exec_time = 0;
  std::atomic<std::uint32_t> interval_exec_time = 0;  // written under mutex, with Cost
  std::atomic<std::int64_t> ExecTime = 0;             // the key of the schedule queue
  std::atomic<float> Cost = 1.0F;
  std::atomic<std::int32_t> Retrie = 0;
  std::atomic<std::int32_t> MaxRetrie = 1;
  std::atomic<std::int32_t> RetrieTime = 120;
  std::atomic<char> ExecState = kRecordNormal;
  std::atomic<bool> isDropped = false;  // the state that was set last was 3
  std::string Service_idStr;            // guarded by mutex
  std::string name;                     // guarded by mutex
  std::string parameter;                // guarded by mutex, but for Setparameter's store
  PackedArguments parameterVector;      // guarded by mutex, but for GetVectorParam
  std::string path;                     // guarded by mutex
  std::string Stdout;                   // guarded by mutex, but for clearOutput
  mutable std::mutex mutex;
};
