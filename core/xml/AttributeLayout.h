// The names of a record's attributes: their walk order, the lookup from a
// name to its slot, and each name's slot in the record's array of
// attributes (the order of registration).
//
// Every record of one class registers the same names in the same order, so
// a layout is worked out once and shared: each registration is a step from
// one layout to the next, and a step some record took before costs a
// comparison of names. The walk order is that of a wx string hash map that
// took the same insertions and erasures, so it does not depend on the order
// of declaration, and it is the same in every walk.
//
// Layouts reached from Empty() are shared and live as long as the process.
// Records that keep registering names no other record has (names made from
// data) would grow that set without end, so past a bound a step gives a
// layout of the caller's own instead.
//
// Thread safety: a layout does not change once built; steps may be taken
// from any thread.
#pragma once

#include <wx/string.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace VeskCore {

class AttributeLayout {
  public:
    struct Entry {
        wxString name;
        std::string utf8Name;
        unsigned slot;
    };
    enum class Step : unsigned char { kAdd, kErase };

    // The layout of a record that has registered nothing.
    static const AttributeLayout* Empty();

    AttributeLayout(const AttributeLayout&) = delete;
    AttributeLayout& operator=(const AttributeLayout&) = delete;

    // The layout after adding or erasing `name` (UTF-8; null reads as "").
    // Adding a name that is there, or erasing one that is not, returns this
    // layout. A step past the sharing bounds returns a new layout that
    // `owned` holds; otherwise `owned` is left alone.
    const AttributeLayout* Next(Step step, const char* name,
                                std::unique_ptr<AttributeLayout>& owned) const;

    // Slots handed out so far: one per name added, erased ones included.
    unsigned Slots() const { return m_slots; }
    // The most slots any record that passed through this layout reached:
    // what a record's array should make room for at once.
    unsigned ReserveHint() const { return m_reserveHint.load(std::memory_order_relaxed); }
    bool IsEmpty() const { return m_walk.empty(); }
    const std::vector<Entry>& Walk() const { return m_walk; }

    // The slot of `name`, or -1.
    int Find(const wxString& name) const;
    // The slot of the first name in walk order equal to `name` but for case
    // (wxString::CmpNoCase), or -1.
    int FindNoCase(const wxString& name) const;

    ~AttributeLayout();

  private:
    struct Op {
        Step step;
        std::string name;
    };
    struct Edge;

    explicit AttributeLayout(std::vector<Op> ops);
    void BuildBuckets();
    const AttributeLayout* FindEdge(Step step, const char* name) const;
    const AttributeLayout* Share(Step step, const char* name,
                                 std::unique_ptr<AttributeLayout>& next) const;
    void RaiseReserveHints(unsigned slots) const;

    std::vector<Op> m_ops;  // the steps from Empty() to here
    std::vector<Entry> m_walk;
    // Open addressing over m_walk (-1: empty), a power of two in size: a
    // lookup runs for every attribute read, and a wx map's costs more.
    std::vector<int> m_buckets;
    unsigned m_slots = 0;
    bool m_namesDifferOnlyInCase = false;
    bool m_shared = false;
    const AttributeLayout* m_parent = nullptr;  // the layout a shared one was reached from
    mutable std::atomic<unsigned> m_reserveHint{0};
    mutable std::atomic<const Edge*> m_edges{nullptr};
    mutable unsigned m_edgeCount = 0;  // guarded by the registry's mutex
};

}  // namespace VeskCore
