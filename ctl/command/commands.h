#pragma once

struct Options;

// The commands. Each prints its result on standard output and returns the exit status of koductl;
// failures are thrown as Failure.

int runStatus(const Options& options);
int runIds(const Options& options);
int runShow(const Options& options);
int runTop(const Options& options);
int runExplain(const Options& options);
int runLogs(const Options& options);
int runHistory(const Options& options);
int runEvents(const Options& options);
int runOutput(const Options& options);
int runDaemon(const Options& options);
int runCheck(const Options& options);
int runTest(const Options& options);
int runHealth(const Options& options);
int runMetrics(const Options& options);
int runRepair(const Options& options);
int runAdd(const Options& options);
int runSet(const Options& options);
int runPause(const Options& options);
int runResume(const Options& options);
int runNow(const Options& options);
int runDelete(const Options& options);
int runUndelete(const Options& options);
int runForecast(const Options& options);
int runNext(const Options& options);
int runStagger(const Options& options);
int runPrune(const Options& options);
int runExport(const Options& options);
int runApply(const Options& options);
int runImport(const Options& options);
int runSchema(const Options& options);
int runAccount(const Options& options);
int runLedger(const Options& options);
int runHost(const Options& options);
int runWindow(const Options& options);
