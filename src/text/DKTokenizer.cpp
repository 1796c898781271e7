#include <DorvikCore/DKString.h>

DKTokenizer::DKTokenizer() : m_separators(DK_T(" \t")), m_allowEmptyTokens(false) {}

void DKTokenizer::Tokenize(DKChar* buffer, DKPointerVector<DKChar>& out) const {
  if (!buffer || !*buffer)
    return;
  if (m_separators.IsEmpty()) {
    out.Add(buffer);
    return;
  }
  const DKChar* seps = m_separators.c_str();
  DKChar* token = buffer;
  DKChar* p = buffer;
  for (; *p; ++p) {
    bool isSeparator = false;
    for (const DKChar* s = seps; *s; ++s)
      if (*s == *p) {
        isSeparator = true;
        break;
      }
    if (!isSeparator)
      continue;
    *p = 0;
    if (p > token)
      out.Add(token);
    else if (m_allowEmptyTokens)
      out.Add(p); // a separator first or after another: an empty token
    token = p + 1;
  }
  if (p > token)
    out.Add(token);
  else if (m_allowEmptyTokens)
    out.Add(p); // the buffer ended with a separator: an empty token at the terminator
}
