#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>

#include <iostream>

int main() {
  DKString name(DK_T("consumer"));
  name.Upper();
  std::cout << name << " " << DKErrorID().AsString() << "\n";
  return name == DK_T("CONSUMER") ? 0 : 1;
}
