#include "core/xml/AttributeTable.h"

#include <algorithm>
#include <new>

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
    if (m_layout->Slots() == m_count)
        return;  // the name was there
    if (m_count == m_capacity)
        Grow();
    new (&Slots()[m_count++]) XMLAttribute(attribute);
}

void AttributeTable::Grow() {
    const size_t capacity = std::max<size_t>(m_layout->ReserveHint(), 2 * m_capacity);
    std::unique_ptr<XMLAttribute[]> slots(new XMLAttribute[capacity]);
    std::copy(Slots(), Slots() + m_count, slots.get());
    m_heap = std::move(slots);
    m_capacity = capacity;
}

void AttributeTable::Erase(const char* name) {
    Take(AttributeLayout::Step::kErase, name);
}

}  // namespace VeskCore
