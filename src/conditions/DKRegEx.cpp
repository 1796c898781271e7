#include <DorvikCore/DKRegEx.h>

#include "conditions/DKRegExProgram.h"

#include <utility>

DKRegEx::DKRegEx() noexcept = default;
DKRegEx::DKRegEx(const DKString& pattern) { Compile(pattern).IgnoreError(); } // IsCompiled tells
DKRegEx::DKRegEx(const DKRegEx& other) noexcept = default;
DKRegEx::DKRegEx(DKRegEx&& other) noexcept = default;
DKRegEx& DKRegEx::operator=(const DKRegEx& other) noexcept = default;
DKRegEx& DKRegEx::operator=(DKRegEx&& other) noexcept = default;
DKRegEx::~DKRegEx() = default;

DKErrorID DKRegEx::Compile(const DKString& pattern, std::size_t cacheBytes) {
  m_program.reset();
  m_pattern = pattern;
  m_error = dkre::Program::Compile(pattern, cacheBytes, m_program);
  return m_error;
}

void DKRegEx::Clear() noexcept {
  m_program.reset();
  m_pattern.Clear();
  m_error = DKErrorID();
}

std::size_t DKRegEx::GetProgramSize() const noexcept { return m_program ? m_program->Size() : 0; }

bool DKRegEx::Match(const DKString& text) const { return Match(text.c_str(), text.Length()); }

bool DKRegEx::Match(const DKChar* text, std::size_t length) const {
  return m_program && m_program->Match(text ? text : DK_T(""), text ? length : 0);
}
