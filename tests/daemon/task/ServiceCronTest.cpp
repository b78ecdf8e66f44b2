#include "task/serviceCron.h"

#include <type_traits>

#include <gtest/gtest.h>

namespace {

TEST(ServiceCronTest, BeginsWithoutAFileName) {
  const serviceCron task;

  EXPECT_EQ(task.GetFilename(), "");
  EXPECT_EQ(task.GetCost(), 1.0F);
  EXPECT_EQ(task.GetMaxRetrie(), 1);
}

TEST(ServiceCronTest, CopiesARecordWithoutAFileName) {
  serviceSafe record;
  record.Setname("name");

  const serviceCron task(record);

  EXPECT_EQ(task.Getname(), "name");
  EXPECT_EQ(task.GetFilename(), "");
}

TEST(ServiceCronTest, CopiesATaskWithItsFileName) {
  serviceCron task;
  task.Setname("name");
  task.SetFilename("out_$DATE.txt");

  const serviceCron copy(task);

  EXPECT_EQ(copy.Getname(), "name");
  EXPECT_EQ(copy.GetFilename(), "out_$DATE.txt");
}

TEST(ServiceCronTest, KeepsItsFileNameInAnUpdate) {
  serviceCron known;
  serviceCron changed;
  known.SetFilename("old");
  changed.SetFilename("new");
  changed.Setname("name");
  changed.Setinterval_exec_time(60);

  known.updateServiceParameter(changed);

  EXPECT_EQ(known.Getname(), "name");
  EXPECT_EQ(known.GetFilename(), "old");
}

TEST(ServiceCronTest, DerivesFromTheRecord) {
  EXPECT_TRUE((std::is_base_of_v<serviceSafe, serviceCron>));
  EXPECT_TRUE(std::has_virtual_destructor_v<serviceCron>);
}

}  // namespace
