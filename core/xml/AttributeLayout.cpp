#include "core/xml/AttributeLayout.h"

#include <wx/hashmap.h>

#include <cstring>
#include <mutex>
#include <string>

namespace VeskCore {

WX_DECLARE_STRING_HASH_MAP(unsigned, AttributeSlotMap);

struct AttributeLayout::Edge {
    Step step;
    std::string name;
    const AttributeLayout* target;
    const Edge* next;
};

namespace {

// Even the empty layout, where every kind of record starts, leads on to a
// few dozen layouts in a program; one with this many steps leading on is
// fed names made from data.
constexpr unsigned kMaxEdges = 256;
constexpr unsigned kMaxSharedLayouts = 1u << 16;

std::mutex& RegistryMutex() {
    static std::mutex* mutex = new std::mutex;  // steps may run during exit
    return *mutex;
}

unsigned g_sharedLayouts = 0;  // guarded by RegistryMutex()

// FNV-1a over the characters.
size_t HashOf(const wxStringCharType* characters, size_t length) {
    size_t hash = 14695981039346656037ULL;
    for (size_t i = 0; i < length; ++i) {
        hash ^= static_cast<size_t>(characters[i]);
        hash *= 1099511628211ULL;
    }
    return hash;
}

const char* NameOrEmpty(const char* name) {
    return name != nullptr ? name : "";
}

}  // namespace

const AttributeLayout* AttributeLayout::Empty() {
    static const AttributeLayout* const empty = [] {
        auto* layout = new AttributeLayout({});
        layout->m_shared = true;
        return layout;
    }();
    return empty;
}

AttributeLayout::AttributeLayout(std::vector<Op> ops) : m_ops(std::move(ops)) {
    // The walk order is that of the map a record's table always was: created
    // with the same size, since the size decides the buckets and so the order.
    AttributeSlotMap slots(5);
    for (const Op& op : m_ops) {
        const wxString name = wxString::FromUTF8(op.name);
        if (op.step == Step::kErase)
            slots.erase(name);
        else if (slots.find(name) == slots.end())
            slots[name] = m_slots++;
    }
    m_walk.reserve(slots.size());
    for (const auto& entry : slots)
        m_walk.push_back({entry.first, entry.first.utf8_string(), entry.second});
    for (size_t i = 0; i < m_walk.size() && !m_namesDifferOnlyInCase; ++i)
        for (size_t j = i + 1; j < m_walk.size(); ++j)
            if (m_walk[i].name.CmpNoCase(m_walk[j].name) == 0)
                m_namesDifferOnlyInCase = true;
    m_reserveHint.store(m_slots, std::memory_order_relaxed);
    BuildBuckets();
}

void AttributeLayout::BuildBuckets() {
    size_t size = 8;
    while (size < 2 * m_walk.size())
        size *= 2;
    m_buckets.assign(size, -1);
    for (size_t at = 0; at < m_walk.size(); ++at) {
        const wxString& name = m_walk[at].name;
        size_t i = HashOf(name.wx_str(), name.length()) & (size - 1);
        while (m_buckets[i] >= 0)
            i = (i + 1) & (size - 1);
        m_buckets[i] = static_cast<int>(at);
    }
}

// Shared layouts, the only ones with steps leading on, are never destroyed.
AttributeLayout::~AttributeLayout() = default;

int AttributeLayout::Find(const wxString& name) const {
    const wxStringCharType* characters = name.wx_str();
    const size_t length = name.length();
    const size_t mask = m_buckets.size() - 1;
    for (size_t i = HashOf(characters, length) & mask;; i = (i + 1) & mask) {
        const int at = m_buckets[i];
        if (at < 0)
            return -1;
        const wxString& candidate = m_walk[static_cast<size_t>(at)].name;
        if (candidate.length() == length && std::char_traits<wxStringCharType>::compare(
                                                candidate.wx_str(), characters, length) == 0)
            return static_cast<int>(m_walk[static_cast<size_t>(at)].slot);
    }
}

int AttributeLayout::FindNoCase(const wxString& name) const {
    // Without two names that differ only in case, an exact match is the
    // only match there is.
    if (!m_namesDifferOnlyInCase) {
        const int exact = Find(name);
        if (exact >= 0)
            return exact;
    }
    for (const Entry& entry : m_walk)
        if (entry.name.CmpNoCase(name) == 0)
            return static_cast<int>(entry.slot);
    return -1;
}

const AttributeLayout* AttributeLayout::FindEdge(Step step, const char* name) const {
    for (const Edge* edge = m_edges.load(std::memory_order_acquire); edge != nullptr;
         edge = edge->next)
        if (edge->step == step && strcmp(edge->name.c_str(), name) == 0)
            return edge->target;
    return nullptr;
}

const AttributeLayout* AttributeLayout::Next(Step step, const char* name,
                                             std::unique_ptr<AttributeLayout>& owned) const {
    name = NameOrEmpty(name);
    if (m_shared) {
        if (const AttributeLayout* known = FindEdge(step, name))
            return known;
    }
    const bool present = Find(wxString::FromUTF8(name)) >= 0;
    std::unique_ptr<AttributeLayout> next;
    if (step == Step::kAdd ? !present : present) {
        std::vector<Op> ops = m_ops;
        ops.push_back({step, name});
        next.reset(new AttributeLayout(std::move(ops)));
    }
    if (m_shared) {
        if (const AttributeLayout* kept = Share(step, name, next))
            return kept;
    }
    if (next == nullptr)
        return this;
    owned = std::move(next);
    return owned.get();
}

// Publishes the step to `next` (null: back to this layout), which the
// registry then holds, and returns where the step leads; null when the
// bounds are reached and `next` stays the caller's.
const AttributeLayout* AttributeLayout::Share(Step step, const char* name,
                                              std::unique_ptr<AttributeLayout>& next) const {
    std::lock_guard<std::mutex> lock(RegistryMutex());
    if (const AttributeLayout* known = FindEdge(step, name))
        return known;  // another thread took the same step first
    if (m_edgeCount >= kMaxEdges || g_sharedLayouts >= kMaxSharedLayouts)
        return nullptr;
    const AttributeLayout* target = this;
    if (next != nullptr) {
        next->m_shared = true;
        next->m_parent = this;
        next->RaiseReserveHints(next->m_slots);
        target = next.release();
        ++g_sharedLayouts;
    }
    ++m_edgeCount;
    m_edges.store(new Edge{step, name, target, m_edges.load(std::memory_order_relaxed)},
                  std::memory_order_release);
    return target;
}

void AttributeLayout::RaiseReserveHints(unsigned slots) const {
    for (const AttributeLayout* layout = m_parent; layout != nullptr; layout = layout->m_parent)
        if (layout->m_reserveHint.load(std::memory_order_relaxed) < slots)
            layout->m_reserveHint.store(slots, std::memory_order_relaxed);
}

}  // namespace VeskCore
