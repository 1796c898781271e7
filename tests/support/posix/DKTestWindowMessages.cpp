// No window messages here: the tests that need them skip.
#include "support/DKTestWindowMessages.h"

namespace dktest {

bool HasWindowMessages() { return false; }
bool DispatchMessagesUntil(const std::function<bool()>& done, int) { return done(); }
void PostQuitToThisThread(int) {}
int DropThreadMessages() { return 0; }

} // namespace dktest
