#include "core/xml/AttributeTable.h"

#include <algorithm>

namespace VeskCore {

AttributeTable::AttributeTable() : m_layout(AttributeLayout::Empty()) {}

AttributeTable::~AttributeTable() = default;

void AttributeTable::Take(AttributeLayout::Step step, const char* name) {
    std::unique_ptr<AttributeLayout> owned;
    m_layout = m_layout->Next(step, name, owned);
    // The layout held so far may be the one just left: it goes only now.
    if (owned != nullptr)
        m_ownLayout = std::move(owned);
}

void AttributeTable::Add(const char* name, const XMLAttribute& attribute) {
    Take(AttributeLayout::Step::kAdd, name);
    if (m_layout->Slots() == m_values.size())
        return;  // the name was there
    if (m_values.size() == m_values.capacity())
        m_values.reserve(std::max<size_t>(m_layout->ReserveHint(), 2 * m_values.size()));
    m_values.push_back(attribute);
}

void AttributeTable::Erase(const char* name) {
    Take(AttributeLayout::Step::kErase, name);
}

}  // namespace VeskCore
