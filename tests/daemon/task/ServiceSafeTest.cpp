#include "task/serviceSafe.h"

#include <malloc.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "task/serviceCron.h"
#include "task/serviceSafeException.h"
#include "tests/support/Heap.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A record in which every field differs from its default.
std::shared_ptr<serviceSafe> filledRecord() {
  auto record = std::make_shared<serviceSafe>();
  record->SetDevice_id(11);
  record->SetPlugin_id(12);
  record->SetService_id(13ULL);
  record->SetReturnCode(2);
  record->validateReturnCode();
  record->SetReturnCode(1);
  record->Setlast_exec_time(1000);
  record->Setinterval_exec_time(300);
  record->SetExecTime(2000L);
  record->SetRetrie(3);
  record->SetMaxRetrie(4);
  record->SetRetrieTime(5);
  record->SetExecState(3);
  record->Setname("name");
  record->Setparameter("-a b");
  record->Setpath("/path");
  record->SetStdout("output");
  return record;
}

using Record = std::shared_ptr<serviceSafe>;

/// A record that is never freed: a record with a locked mutex must not be destroyed, and the
/// threads that wait for it never end.
Record keptRecord() {
  static auto& kept = *new std::vector<Record>();
  return kept.emplace_back(std::make_shared<serviceSafe>());
}

/// A record that is locked because of a bad id.
Record lockedRecord() {
  Record record = keptRecord();
  EXPECT_THROW(record->SetService_id(std::string("abc")), std::invalid_argument);
  return record;
}

/// Starts `use` in a thread that holds `record`; the thread may last until the process ends. The
/// future is ready when `use` has returned.
std::future<void> startUse(const Record& record, const std::function<void(serviceSafe&)>& use) {
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  std::thread([record, use, done] {
    use(*record);
    done->set_value();
  }).detach();
  return finished;
}

bool isWaiting(const std::future<void>& use) {
  return use.wait_for(std::chrono::milliseconds(200)) == std::future_status::timeout;
}

/// Proves that a locked accessor of `record` waits.
bool isLeftLocked(const Record& record) {
  return isWaiting(startUse(record, [](serviceSafe& used) { used.Getname(); }));
}

TEST(ServiceSafeTest, BeginsWithItsDefaults) {
  const serviceSafe record;

  EXPECT_EQ(record.GetCost(), 1.0F);
  EXPECT_EQ(record.GetMaxRetrie(), 1);
  EXPECT_EQ(record.GetRetrieTime(), 120);
  EXPECT_EQ(record.GetDevice_id(), 0U);
  EXPECT_EQ(record.GetPlugin_id(), 0);
  EXPECT_EQ(record.GetService_id(), 0U);
  EXPECT_EQ(record.GetReturnCode(), 0);
  EXPECT_EQ(record.GetLastValidateReturnCode(), 0);
  EXPECT_EQ(record.Getlast_exec_time(), 0);
  EXPECT_EQ(record.Getinterval_exec_time(), 0U);
  EXPECT_EQ(record.GetExecTimeSec(), 0);
  EXPECT_EQ(record.GetRetrie(), 0);
  EXPECT_EQ(record.GetExecState(), 0);
  EXPECT_EQ(record.GetService_idStr(), "");
  EXPECT_EQ(record.Getname(), "");
  EXPECT_EQ(record.Getpath(), "");
  EXPECT_EQ(record.Getparameter(), "");
  EXPECT_EQ(record.GetStdout(), "");
  EXPECT_THAT(record.GetVectorParam(), IsEmpty());
}

TEST(ServiceSafeTest, KeepsWhatItsSettersStore) {
  const auto record = filledRecord();

  EXPECT_EQ(record->GetDevice_id(), 11U);
  EXPECT_EQ(record->GetPlugin_id(), 12);
  EXPECT_EQ(record->GetReturnCode(), 1);
  EXPECT_EQ(record->Getlast_exec_time(), 1000);
  EXPECT_EQ(record->Getinterval_exec_time(), 300U);
  EXPECT_EQ(record->GetExecTimeSec(), 2000);
  EXPECT_EQ(record->GetRetrie(), 3);
  EXPECT_EQ(record->GetMaxRetrie(), 4);
  EXPECT_EQ(record->GetRetrieTime(), 5);
  EXPECT_EQ(record->GetExecState(), 3);
  EXPECT_EQ(record->Getname(), "name");
  EXPECT_EQ(record->Getpath(), "/path");
  EXPECT_EQ(record->GetStdout(), "output");
  record->SetCost(2.5F);
  EXPECT_EQ(record->GetCost(), 2.5F);
}

TEST(ServiceSafeTest, ConfirmsTheReturnCodeOnlyWhenAsked) {
  serviceSafe record;
  record.SetReturnCode(2);
  EXPECT_EQ(record.GetLastValidateReturnCode(), 0);

  record.validateReturnCode();

  EXPECT_EQ(record.GetLastValidateReturnCode(), 2);
}

TEST(ServiceSafeTest, ComputesTheCostFromTheInterval) {
  serviceSafe record;

  record.Setinterval_exec_time(300);
  EXPECT_EQ(record.GetCost(), 1000.0F);
  record.Setinterval_exec_time(400000);
  EXPECT_EQ(record.GetCost(), 0.0F);
}

TEST(ServiceSafeTest, TruncatesTheCostToAWholeNumber) {
  serviceSafe record;

  record.Setinterval_exec_time(7);

  EXPECT_EQ(record.GetCost(), 42857.0F);
}

TEST(ServiceSafeTest, RefusesAnIntervalOfZeroAndChangesNothing) {
  serviceSafe record;
  record.Setinterval_exec_time(300);

  EXPECT_THROW(record.Setinterval_exec_time(0), std::invalid_argument);

  EXPECT_EQ(record.Getinterval_exec_time(), 300U);
  EXPECT_EQ(record.GetCost(), 1000.0F);
  EXPECT_EQ(record.Getname(), "") << "the record is not left locked";
}

TEST(ServiceSafeTest, TakesANumericIdAsNumberAndText) {
  serviceSafe record;

  record.SetService_id(18446744073709551615ULL);

  EXPECT_EQ(record.GetService_id(), 18446744073709551615ULL);
  EXPECT_EQ(record.GetService_idStr(), "18446744073709551615");
}

TEST(ServiceSafeTest, TakesATextIdAsTextAndNumber) {
  serviceSafe record;

  record.SetService_id(std::string("42"));
  EXPECT_EQ(record.GetService_id(), 42U);
  EXPECT_EQ(record.GetService_idStr(), "42");

  record.SetService_id(std::string(" 7x"));
  EXPECT_EQ(record.GetService_id(), 7U);
  EXPECT_EQ(record.GetService_idStr(), " 7x");
}

TEST(ServiceSafeTest, LeavesTheRecordLockedAfterABadId) {
  const Record record = keptRecord();
  try {
    record->SetService_id(std::string("abc"));
    FAIL() << "nothing was thrown";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "stoull");
  }

  EXPECT_TRUE(isLeftLocked(record));
}

TEST(ServiceSafeTest, LeavesTheRecordLockedAfterAnIdOutOfRange) {
  const Record record = keptRecord();
  try {
    record->SetService_id(std::string("18446744073709551616"));
    FAIL() << "nothing was thrown";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "stoull");
  }

  EXPECT_TRUE(isLeftLocked(record));
}

TEST(ServiceSafeTest, LocksForEachStringAndForTheInterval) {
  const Record record = lockedRecord();
  const auto source = std::make_shared<serviceSafe>();
  std::vector<std::future<void>> uses;
  for (const std::function<void(serviceSafe&)>& use :
       std::vector<std::function<void(serviceSafe&)>>{
           [](serviceSafe& used) { used.Getname(); }, [](serviceSafe& used) { used.Setname("x"); },
           [](serviceSafe& used) { used.Getpath(); }, [](serviceSafe& used) { used.Setpath("x"); },
           [](serviceSafe& used) { used.Getparameter(); },
           [](serviceSafe& used) { used.Setparameter("x"); },
           [](serviceSafe& used) { used.GetStdout(); },
           [](serviceSafe& used) { used.SetStdout("x"); },
           [](serviceSafe& used) { used.GetService_idStr(); },
           [](serviceSafe& used) { used.SetService_id(1ULL); },
           [](serviceSafe& used) { used.SetService_id(std::string("1")); },
           [](serviceSafe& used) { used.Setinterval_exec_time(1); },
           [](serviceSafe& used) { std::make_shared<serviceSafe>(used); },
           [source](serviceSafe& used) { used.updateServiceParameter(source); }}) {
    uses.push_back(startUse(record, use));
  }

  EXPECT_TRUE(isLeftLocked(record));  // also the time in which the others could have failed
  for (std::size_t i = 0; i < uses.size(); ++i) {
    EXPECT_EQ(uses[i].wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "use " << i;
  }
}

TEST(ServiceSafeTest, NeverWaitsForAScalar) {
  const Record record = lockedRecord();

  record->SetDevice_id(11);
  record->SetPlugin_id(12);
  record->SetReturnCode(1);
  record->validateReturnCode();
  record->Setlast_exec_time(1000);
  record->SetExecTime(timeval{2000, 1});
  record->SetCost(2.5F);
  record->SetRetrie(3);
  record->SetMaxRetrie(4);
  record->SetRetrieTime(5);
  record->SetExecState(3);
  record->clearOutput();

  EXPECT_EQ(record->GetDevice_id(), 11U);
  EXPECT_EQ(record->GetPlugin_id(), 12);
  EXPECT_EQ(record->GetService_id(), 0U) << "a bad id is no number";
  EXPECT_EQ(record->GetReturnCode(), 1);
  EXPECT_EQ(record->GetLastValidateReturnCode(), 1);
  EXPECT_EQ(record->Getlast_exec_time(), 1000);
  EXPECT_EQ(record->Getinterval_exec_time(), 0U);
  EXPECT_EQ(record->GetExecTime().tv_sec, 2000);
  EXPECT_EQ(record->GetCost(), 2.5F);
  EXPECT_EQ(record->GetRetrie(), 3);
  EXPECT_EQ(record->GetMaxRetrie(), 4);
  EXPECT_EQ(record->GetRetrieTime(), 5);
  EXPECT_EQ(record->GetExecState(), 3);
  EXPECT_THAT(record->GetVectorParam(), IsEmpty());
  EXPECT_FALSE(*record < *record || *record > *record);
  EXPECT_TRUE(record->isTimeParameterUpdate(*record));
}

TEST(ServiceSafeTest, ReturnsAWholeStringWhileAnotherThreadStoresIt) {
  const std::string one(100, '1');
  const std::string other(200, '2');
  serviceSafe record;
  record.Setname(one);
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    while (!isDone) {
      record.Setname(other);
      record.Setname(one);
    }
  });

  for (int i = 0; i < 10000; ++i) {
    const std::string name = record.Getname();
    EXPECT_TRUE(name == one || name == other) << name;
  }
  isDone = true;
  writer.join();
}

TEST(ServiceSafeTest, EmptiesTheOutputWhileItIsCopied) {
  const std::string output(4096, 'x');
  const std::string torn = '\0' + output.substr(1);
  serviceSafe record;
  std::atomic<bool> isDone = false;
  std::thread worker([&] {
    while (!isDone) {
      record.SetStdout(output);
      record.clearOutput();
      record.SetStdout({});
    }
  });

  for (int i = 0; i < 20000; ++i) {
    const std::string copy = record.GetStdout();
    EXPECT_TRUE(copy.empty() || copy == output || copy == torn) << "copy " << i;
  }
  isDone = true;
  worker.join();
}

TEST(ServiceSafeTest, KeepsTheSecondsOfATimeOnly) {
  serviceSafe record;

  record.SetExecTime(timeval{100, 999999});

  EXPECT_EQ(record.GetExecTime().tv_sec, 100);
  EXPECT_EQ(record.GetExecTime().tv_usec, 0);
  EXPECT_EQ(record.GetExecTimeuSec(), 0);
}

TEST(ServiceSafeTest, ComparesByExecTimeAlone) {
  serviceSafe early;
  serviceSafe late;
  early.SetExecTime(-1L);
  late.SetExecTime(1L);
  EXPECT_TRUE(early < late);
  EXPECT_FALSE(late < early);
  EXPECT_TRUE(late > early);
  EXPECT_FALSE(early > late);

  late.SetExecTime(-1L);
  EXPECT_FALSE(early < late);
  EXPECT_FALSE(early > late);
}

TEST(ServiceSafeTest, ComparesTheIntervalWithTheExecTime) {
  serviceSafe known;
  auto changed = std::make_shared<serviceSafe>();
  known.Setinterval_exec_time(300);
  known.SetExecTime(1000L);
  changed->Setinterval_exec_time(300);
  changed->SetExecTime(1000L);
  EXPECT_TRUE(known.isTimeParameterUpdate(*changed)) << "nothing differs, and yet";
  EXPECT_TRUE(known.isTimeParameterUpdate(changed));

  known.SetExecTime(300L);
  changed->SetExecTime(300L);
  changed->Setinterval_exec_time(600);
  EXPECT_FALSE(known.isTimeParameterUpdate(*changed)) << "the intervals differ, and yet";
  EXPECT_FALSE(known.isTimeParameterUpdate(changed));

  changed->SetExecTime(301L);
  EXPECT_TRUE(known.isTimeParameterUpdate(*changed));
}

TEST(ServiceSafeTest, CopiesADefinition) {
  const auto source = filledRecord();
  serviceSafe known;

  EXPECT_EQ(known.updateServiceParameter(source), 1);

  EXPECT_EQ(known.Getname(), "name");
  EXPECT_EQ(known.Getparameter(), "-a b");
  EXPECT_THAT(known.GetVectorParam(), ElementsAre("-a", "b"));
  EXPECT_EQ(known.Getpath(), "/path");
  EXPECT_EQ(known.GetRetrie(), 3);
  EXPECT_EQ(known.GetMaxRetrie(), 4);
  EXPECT_EQ(known.GetRetrieTime(), 5);
  EXPECT_EQ(known.GetExecState(), 1);
  EXPECT_EQ(known.Getinterval_exec_time(), 300U);
  EXPECT_EQ(known.GetCost(), 1000.0F);
  EXPECT_EQ(known.GetExecTimeSec(), 2000);
}

TEST(ServiceSafeTest, KeepsItsIdentityAndResultsInAnUpdate) {
  serviceSafe known;

  known.updateServiceParameter(*filledRecord());

  EXPECT_EQ(known.GetDevice_id(), 0U);
  EXPECT_EQ(known.GetPlugin_id(), 0);
  EXPECT_EQ(known.GetService_id(), 0U);
  EXPECT_EQ(known.GetService_idStr(), "");
  EXPECT_EQ(known.GetReturnCode(), 0);
  EXPECT_EQ(known.GetLastValidateReturnCode(), 0);
  EXPECT_EQ(known.Getlast_exec_time(), 0);
  EXPECT_EQ(known.GetStdout(), "");
}

TEST(ServiceSafeTest, HoldsItsLockInAnUpdateWhileItWaitsForTheSource) {
  const Record source = lockedRecord();
  const Record known = keptRecord();
  const auto update =
      startUse(known, [source](serviceSafe& used) { used.updateServiceParameter(source); });

  EXPECT_TRUE(waitUntil([&] { return isLeftLocked(known); }));
  EXPECT_EQ(update.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(known->GetExecState(), 0) << "the strings come first";
}

TEST(ServiceSafeTest, TakesOverNoTimeInAnUpdateWithAnIntervalOfZero) {
  serviceSafe known;
  serviceSafe source;
  known.Setinterval_exec_time(60);
  known.SetExecTime(1000L);
  source.Setname("new");
  source.SetExecTime(2000L);

  EXPECT_THROW(known.updateServiceParameter(source), std::invalid_argument);

  EXPECT_EQ(known.Getname(), "new");
  EXPECT_EQ(known.GetExecState(), 1);
  EXPECT_EQ(known.Getinterval_exec_time(), 60U);
  EXPECT_EQ(known.GetExecTimeSec(), 1000);
}

TEST(ServiceSafeTest, TakesOverTheIntervalUnlessItEqualsTheExecTime) {
  serviceSafe known;
  serviceSafe source;
  source.Setinterval_exec_time(600);
  known.Setinterval_exec_time(300);
  known.SetExecTime(1000L);
  source.SetExecTime(1000L);
  EXPECT_EQ(known.updateServiceParameter(source), 1);
  EXPECT_EQ(known.Getinterval_exec_time(), 600U);

  known.Setinterval_exec_time(300);
  known.SetExecTime(300L);
  source.SetExecTime(300L);
  EXPECT_EQ(known.updateServiceParameter(source), 0);
  EXPECT_EQ(known.Getinterval_exec_time(), 300U);
  EXPECT_EQ(known.GetExecState(), 1);
}

TEST(ServiceSafeTest, TakesOverTheExecTimeAlone) {
  serviceSafe known;
  serviceSafe source;
  known.Setinterval_exec_time(300);
  source.Setinterval_exec_time(600);
  source.SetExecTime(300L);

  EXPECT_EQ(known.updateServiceParameter(source), 1);

  EXPECT_EQ(known.GetExecTimeSec(), 300);
  EXPECT_EQ(known.Getinterval_exec_time(), 300U);
}

TEST(ServiceSafeTest, CopiesEveryFieldButTheLock) {
  const auto source = filledRecord();
  source->SetCost(2.5F);

  const serviceSafe copy(*source);

  EXPECT_EQ(copy.GetDevice_id(), 11U);
  EXPECT_EQ(copy.GetPlugin_id(), 12);
  EXPECT_EQ(copy.GetService_id(), 13U);
  EXPECT_EQ(copy.GetService_idStr(), "13");
  EXPECT_EQ(copy.GetReturnCode(), 1);
  EXPECT_EQ(copy.GetLastValidateReturnCode(), 2);
  EXPECT_EQ(copy.Getlast_exec_time(), 1000);
  EXPECT_EQ(copy.Getinterval_exec_time(), 300U);
  EXPECT_EQ(copy.GetExecTimeSec(), 2000);
  EXPECT_EQ(copy.GetCost(), 2.5F);
  EXPECT_EQ(copy.GetRetrie(), 3);
  EXPECT_EQ(copy.GetMaxRetrie(), 4);
  EXPECT_EQ(copy.GetRetrieTime(), 5);
  EXPECT_EQ(copy.GetExecState(), 3);
  EXPECT_EQ(copy.Getname(), "name");
  EXPECT_EQ(copy.Getparameter(), "-a b");
  EXPECT_THAT(copy.GetVectorParam(), ElementsAre("-a", "b"));
  EXPECT_EQ(copy.Getpath(), "/path");
  EXPECT_EQ(copy.GetStdout(), "output");
}

TEST(ServiceSafeTest, EmptiesItsOutput) {
  serviceSafe record;
  record.SetStdout("output");

  record.clearOutput();

  EXPECT_EQ(record.GetStdout(), "");
}

TEST(ServiceSafeTest, FreesTheStorageOfTheFormerOutput) {
  if (mallinfo2().uordblks == 0) {
    GTEST_SKIP() << "the heap is the sanitizer's";
  }
  serviceSafe record;
  const auto bytesBefore = mallinfo2().uordblks;
  record.SetStdout(std::string(100'000, 'x'));
  ASSERT_GE(mallinfo2().uordblks, bytesBefore + 100'000);

  record.SetStdout({});

  EXPECT_EQ(mallinfo2().uordblks, bytesBefore);
  EXPECT_TRUE(std::has_virtual_destructor_v<serviceSafe>);
}

TEST(ServiceSafeExceptionTest, ReturnsItsMessage) {
  const serviceSafeException e("Error create fork ");

  EXPECT_STREQ(e.what(), "Error create fork ");
  EXPECT_TRUE((std::is_base_of_v<std::exception, serviceSafeException>));
}

std::vector<std::string> split(const std::string& text) {
  serviceSafe record;
  record.Setparameter(text);
  EXPECT_EQ(record.Getparameter(), text);
  return record.GetVectorParam();
}

TEST(SetparameterTest, SplitsAtSpaces) {
  EXPECT_THAT(split("-H 10.0.0.1 -w 80"), ElementsAre("-H", "10.0.0.1", "-w", "80"));
}

TEST(SetparameterTest, DropsEmptyTokens) {
  EXPECT_THAT(split("a  b"), ElementsAre("a", "b"));
  EXPECT_THAT(split(" a "), ElementsAre("a"));
  EXPECT_THAT(split("a \"\" b"), ElementsAre("a", "b"));
  EXPECT_THAT(split(""), IsEmpty());
  EXPECT_THAT(split("   "), IsEmpty());
}

TEST(SetparameterTest, KeepsQuotedTextTogether) {
  EXPECT_THAT(split("-m \"two words\""), ElementsAre("-m", "two words"));
  EXPECT_THAT(split("-m 'two words'"), ElementsAre("-m", "two words"));
  EXPECT_THAT(split("--m='two words'x"), ElementsAre("--m=two wordsx"));
}

TEST(SetparameterTest, DoesNotDistinguishTheKindsOfQuotes) {
  EXPECT_THAT(split("-m \"it's\""), ElementsAre("-m", "its"));
  EXPECT_THAT(split("\"a b' c"), ElementsAre("a b", "c"));
}

TEST(SetparameterTest, RunsAnUnclosedQuoteToTheEnd) {
  EXPECT_THAT(split("a \"b c"), ElementsAre("a", "b c"));
}

TEST(SetparameterTest, HasNoEscapeCharacter) {
  EXPECT_THAT(split("C:\\dir"), ElementsAre("C:\\dir"));
  EXPECT_THAT(split("\\\"a b\\\""), ElementsAre("\\a b\\"));
  EXPECT_THAT(split("end\\"), ElementsAre("end\\"));
}

TEST(SetparameterTest, SeparatesAtSpacesOnly) {
  EXPECT_THAT(split("a\tb\nc"), ElementsAre("a\tb\nc"));
  EXPECT_THAT(split("$HOME `id` *.c ; | &"), ElementsAre("$HOME", "`id`", "*.c", ";", "|", "&"));
}

TEST(SetparameterTest, EndsAnArgumentAtANul) {
  using namespace std::string_literals;
  EXPECT_THAT(split("a\0b \0c d"s), ElementsAre("a", "d"));
}

TEST(SetparameterTest, ReplacesEarlierArguments) {
  serviceSafe record;
  record.Setparameter("a b c");

  record.Setparameter("d");

  EXPECT_THAT(record.GetVectorParam(), ElementsAre("d"));
}

TEST(SetparameterTest, LeavesTheRecordLockedWhenMemoryRunsOut) {
  if (!isHeapWatched()) {
    GTEST_SKIP() << "the heap is the sanitizer's";
  }
  const std::string one(100, '1');
  const std::string other(1000, '2');
  Record record;
  bool isSplit = false;
  // Grants one request more each time, until the request for the second argument fails.
  for (long granted = 0; record == nullptr || record->GetVectorParam().empty(); ++granted) {
    record = keptRecord();
    std::string text = one;
    text += " " + other;
    try {
      const HeapLimit limit(granted);
      record->Setparameter(std::move(text));
      isSplit = true;
    } catch (const std::bad_alloc&) {
      continue;
    }
  }

  EXPECT_FALSE(isSplit) << "no request failed between the arguments";
  EXPECT_EQ(record->GetVectorParam(), std::vector<std::string>{one});
  EXPECT_TRUE(isLeftLocked(record));
}

}  // namespace
