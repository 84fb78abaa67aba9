// A record's attribute table: its members, in the order they were
// registered, under the names of a shared AttributeLayout. A walk yields
// {first: name, second: attribute} pairs in the layout's walk order. The
// entries of a record with a few attributes live in the record itself, which
// spares every record read from a list an allocation.
//
// Thread safety: none, like the record it belongs to.
#pragma once

#include <memory>
#include <vector>

#include "core/common/Export.h"
#include "core/xml/AttributeLayout.h"
#include "core/xml/XMLAttribute.h"

namespace VeskCore {

class VESK_EXPORT AttributeTable {
  public:
    template <class Attribute>
    struct Entry {
        const wxString& first;
        Attribute& second;
        const std::string& utf8Name;
    };

    template <class Attribute>
    class Iterator {
      public:
        Iterator(const AttributeLayout::Entry* at, Attribute* slots) : m_at(at), m_slots(slots) {}
        Entry<Attribute> operator*() const {
            return {m_at->name, m_slots[m_at->slot], m_at->utf8Name};
        }
        Iterator& operator++() {
            ++m_at;
            return *this;
        }
        bool operator!=(const Iterator& other) const { return m_at != other.m_at; }

      private:
        const AttributeLayout::Entry* m_at;
        Attribute* m_slots;
    };

    AttributeTable();
    ~AttributeTable();
    AttributeTable(const AttributeTable&) = delete;
    AttributeTable& operator=(const AttributeTable&) = delete;

    // The first registration of a name wins; later ones change nothing.
    void Add(const char* name, const XMLAttribute& attribute);
    void Erase(const char* name);

    XMLAttribute* Find(const wxString& name) { return At(m_layout->Find(name)); }
    XMLAttribute* FindNoCase(const wxString& name) { return At(m_layout->FindNoCase(name)); }
    bool empty() const { return m_layout->IsEmpty(); }

    Iterator<XMLAttribute> begin() { return {Walk().data(), Slots()}; }
    Iterator<XMLAttribute> end() { return {Walk().data() + Walk().size(), Slots()}; }
    Iterator<const XMLAttribute> begin() const { return {Walk().data(), Slots()}; }
    Iterator<const XMLAttribute> end() const { return {Walk().data() + Walk().size(), Slots()}; }

  private:
    const std::vector<AttributeLayout::Entry>& Walk() const { return m_layout->Walk(); }
    XMLAttribute* Slots() { return m_heap ? m_heap.get() : m_inline; }
    const XMLAttribute* Slots() const { return m_heap ? m_heap.get() : m_inline; }
    XMLAttribute* At(int slot) { return slot >= 0 ? &Slots()[slot] : nullptr; }
    void Take(AttributeLayout::Step step, const char* name);
    void Grow();

    static constexpr size_t kInline = 6;

    const AttributeLayout* m_layout;
    std::unique_ptr<AttributeLayout> m_ownLayout;  // when m_layout is not shared
    size_t m_count = 0;                            // slots taken
    size_t m_capacity = kInline;
    std::unique_ptr<XMLAttribute[]> m_heap;  // the slots, once more than kInline
    union {
        XMLAttribute m_inline[kInline];  // the slots until then, made as taken
    };
};

}  // namespace VeskCore
