// Hand-written parts of the test types declared in TestTypes.kiln.
#include <cstdio>

#include "KilnTest/Engine.h"
#include "KilnTest/Hub.h"
#include "KilnTest/Lag.h"
#include "KilnTest/Listener.h"
#include "KilnTest/Port.h"
#include "KilnTest/Station.h"

namespace KilnTest {

// The weak hash is intended: 1.2 and 2.1 collide.
U32 Port::hash() const { return U32(sw_ | portId_); }

Kiln::String8 Port::stringValue() const {
  char text[8];
  std::snprintf(text, sizeof text, "%d.%d", sw_, portId_);
  return text;
}

U32 Lag::hash() const { return U32(value_); }

void Listener::heard(U16, U16) {}

U32 Station::scaled(U32 factor) const { return count() * factor; }

void Station::resetAll() {
  countIs(0);
  portsDelAll();
}

std::string Hub::describe() { return name() + " load " + std::to_string(load()); }

// Size 0 yields no engine, for the "null ValidPtr" paths.
Kiln::Ptr<Engine> Engine::kilnCreate(U32 size) {
  if (size == 0) return nullptr;
  return new Engine(size, nullptr);
}

void Engine::modeIs(bool mode) {
  if (mode == mode_) return;
  mode_ = mode;
  handleMode();
}

void Engine::handleMode() { ++modeChanges; }

void Engine::constructHook() { log.push_back("constructed"); }

void Engine::destructHook() {
  // The slots go first, before the members are torn down.
  slotsDelAll();
}

}  // namespace KilnTest
