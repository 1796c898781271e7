// Message sources turn an error code into text, filling "%0:d", "%1:s" placeholders from
// the parameters of the error named in the format context.
#pragma once

#include <DorvikCore/DKError.h>

class DK_EXPORT DKMessageSource : public DKRefCount {
public:
  ~DKMessageSource() override;
  // Writes the text of code to out. An unknown code gives an error result and a text that
  // still names the code, so a caller that prints it shows something useful.
  virtual DKErrorID GetText(DKString& out, long code, const DKFormatContext& context) const = 0;
};
