// A short tour of DorvikCore's strings and errors.
#include <DorvikCore/DKCharacter.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKException.h>
#include <DorvikCore/DKString.h>

#include <iostream>

namespace {

// A fallible operation reports through DKErrorID instead of throwing.
DKErrorID ParsePort(const DKString& text, int& port) {
  bool ok = false;
  port = text.AsInt(&ok);
  if (!ok || port < 1 || port > 65535) {
    DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_INVALID_ARGUMENT);
    error->AddParam(text);
    return DKErrorID(error);
  }
  return DKErrorID();
}

} // namespace

int main() {
  DKString greeting(DK_T("  Hello, DorvikCore!  "));
  DKString copy(greeting); // shares the text: one pointer and one count
  greeting.Trim();         // copy on write: the copy keeps its text
  std::cout << "trimmed:   [" << greeting << "]\n";
  std::cout << "original:  [" << copy << "]\n";

  int upper = 0;
  for (DKChar ch : greeting)
    upper += DKtowlower(ch) != ch;
  DKString line;
  line.Format(DK_T("%s has %d characters, %.1f%% of them upper case"), greeting.c_str(),
              static_cast<int>(greeting.Length()), 100.0 * upper / static_cast<double>(greeting.Length()));
  std::cout << "formatted: " << line << "\n";
  std::cout << "upper:     " << DKString(greeting).Upper() << "\n";
  std::cout << "equal ignoring case: " << std::boolalpha
            << greeting.IsEqual(DK_T("HELLO, DORVIKCORE!"), DKString::IgnoreCase) << "\n";

  for (const DKChar* text : {DK_T("8080"), DK_T("80x")}) {
    int port = 0;
    const DKErrorID result = ParsePort(text, port);
    if (result.IsSuccess())
      std::cout << "port " << port << ": " << result.AsString() << "\n";
    else
      std::cout << "error " << static_cast<int>(result) << ": " << result.AsString() << "\n";
  }

  try {
    throw DKException(DK_T("disk full###***###Please free some space and try again."));
  } catch (const DKException& e) {
    std::cout << "exception: " << e.what() << "\n";
  }
  return 0;
}
