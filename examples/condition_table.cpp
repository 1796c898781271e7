// Filters the rows of a small table with conditions. A condition class derived from DKCondition
// looks up each field's value by column name in OnEvaluate and compares it with EvaluateValue.
//
//   dk_condition_table                      runs the built-in conditions
//   dk_condition_table "qty > 5 AND name % B.*"   filters with the condition given
#include <DorvikCore/DKCondition.h>
#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKString.h>

#include <cstddef>
#include <iostream>
#include <vector>

namespace {

// A table of text cells with named columns.
class Table {
public:
  Table(std::vector<DKString> columns, std::vector<std::vector<DKString>> rows)
      : m_columns(std::move(columns)), m_rows(std::move(rows)) {}

  // The column's index, or -1; column names ignore case.
  int ColumnIndex(const DKString& name) const {
    for (std::size_t i = 0; i < m_columns.size(); ++i)
      if (m_columns[i].IsEqual(name, DKString::IgnoreCase))
        return static_cast<int>(i);
    return -1;
  }
  std::size_t RowCount() const { return m_rows.size(); }
  const DKString& Cell(std::size_t row, int column) const { return m_rows[row][static_cast<std::size_t>(column)]; }
  const std::vector<DKString>& Row(std::size_t row) const { return m_rows[row]; }

private:
  std::vector<DKString> m_columns;
  std::vector<std::vector<DKString>> m_rows;
};

// What a condition is evaluated against: one row of the table.
struct RowParams : DKConditionParams {
  RowParams(const Table& t, std::size_t r) : table(t), row(r) {}
  const Table& table;
  std::size_t row;
};

class RowCondition : public DKCondition {
public:
  RowCondition() = default;
  // Parsed here rather than by the base constructor, so that the children are RowConditions.
  explicit RowCondition(const DKString& text) { m_parsed = FromString(text); }

  bool Parsed() const { return m_parsed; }

  DKSmartPtr<DKCondition> NewChild() const override { return DKSmartPtr<DKCondition>(new RowCondition()); }

  bool OnEvaluate(const DKConditionParams& params) const override {
    const auto& p = static_cast<const RowParams&>(params);
    const int column = p.table.ColumnIndex(GetFieldName());
    return column >= 0 && EvaluateValue(p.table.Cell(p.row, column));
  }

private:
  bool m_parsed = true;
};

void Filter(const Table& table, const DKCondition& condition) {
  std::cout << "\n" << condition.ToString() << "\n";
  std::size_t matches = 0;
  for (std::size_t row = 0; row < table.RowCount(); ++row) {
    if (!condition.Evaluate(RowParams(table, row)))
      continue;
    ++matches;
    std::cout << "   ";
    for (const DKString& cell : table.Row(row))
      std::cout << " | " << cell;
    std::cout << "\n";
  }
  std::cout << "    " << matches << " of " << table.RowCount() << " rows\n";
}

} // namespace

int main(int argc, char** argv) {
  const Table table({DK_T("name"), DK_T("qty"), DK_T("price"), DK_T("delivered")},
                    {
                        {DK_T("Apple"), DK_T("120"), DK_T("0.45"), DK_T("2024/03/01 09:30:00")},
                        {DK_T("Banana"), DK_T("8"), DK_T("0.25"), DK_T("2024/02/27 14:00:00")},
                        {DK_T("Green apple"), DK_T("35"), DK_T("0.55"), DK_T("2024/03/04 08:15:00")},
                        {DK_T("Mango"), DK_T("12"), DK_T("1.80"), DK_T("2024/02/20 17:45:00")},
                        {DK_T("Pineapple"), DK_T("4"), DK_T("3.10"), DK_T("2024/03/05 11:00:00")},
                    });

  if (argc > 1) {
    DKString text;
    if (text.SetFromUTF8(argv[1]).Bad()) {
      std::cerr << "The condition is not valid UTF-8\n";
      return 2;
    }
    const RowCondition condition(text);
    if (!condition.Parsed()) {
      std::cerr << "Cannot read the condition: " << text << "\n";
      return 1;
    }
    Filter(table, condition);
    return 0;
  }

  // Conditions read from text.
  const DKChar* const texts[] = {
      DK_T("qty >= 10"),
      DK_T("qty >= 10 AND name % [A-M].*"),
      DK_T("name = \"Green apple\""),
      DK_T("name /= .*apple.* AND delivered >= TO_DATE('2024/03/01 00:00:00')"),
      DK_T("(price < 0.5 OR qty < 5) AND delivered < TO_DATE('01.03.2024', 'DD.MM.YYYY')"),
  };
  for (const DKChar* text : texts)
    Filter(table, RowCondition(text));

  // A condition built in code: (price > 1 OR qty > 100) AND name matches a pattern.
  RowCondition price, quantity, name;
  price.AssignFieldName(DK_T("price"));
  price > DKDouble(1.0);
  quantity.AssignFieldName(DK_T("qty"));
  quantity > 100;
  name.AssignFieldName(DK_T("name"));
  name % DK_T("[A-Z][a-z]+");
  (price || quantity) && name;
  Filter(table, price);

  // The native form keeps the condition exactly, for storage or transfer.
  const DKString native = price.ToString(true);
  std::cout << "\nNative form: " << native << "\n";
  const RowCondition restored(native);
  std::cout << "Read back:   " << restored.ToString() << "\n";
  return 0;
}
