#include "web/people.h"

#include "ctl/failure.h"
#include "ctl/session/session.h"

std::map<std::string, Person> readPeople(Session& session) {
  std::map<std::string, Person> people;
  const Rows rows = session.query("SELECT role, is_allowed, may_change FROM kodu_web_person");
  for (int row = 0; row < rows.count(); ++row) {
    people[rows.text(row, "role")] = {rows.isTrue(row, "is_allowed"),
                                      rows.isTrue(row, "may_change")};
  }
  return people;
}
