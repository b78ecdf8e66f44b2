#include "task/serviceCron.h"

#include <utility>

serviceCron::serviceCron(const serviceSafe& other) : serviceSafe(other) {}

serviceCron::serviceCron(const serviceCron& other) = default;

void serviceCron::SetFilename(std::string text) {
  filename = std::move(text);
}
