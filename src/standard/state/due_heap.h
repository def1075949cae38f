// due_heap.h - which of many objects is due first: a binary heap of objects that know their place in it.
#ifndef TARN_STANDARD_DUE_HEAP_H
#define TARN_STANDARD_DUE_HEAP_H

#include "../../base/memory.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace tarn::standard {

// What an object that stands in a DueHeap derives from.
struct InDueHeap {
    uint64_t due_ms    = 0; // not changed while it is in the heap
    size_t   due_place = 0; // 0: not in the heap; the first has 1
};

template <class Item> class DueHeap {
public:
    size_t size() const noexcept { return items_.size(); }
    Item  *first() const noexcept { return items_.empty() ? nullptr : items_[0]; }

    // Of an item that is not in it. False without memory; there is always some if one was removed just before.
    [[nodiscard]] bool add(Item &item) noexcept
    {
        if (!items_.push(&item))
            return false;
        item.due_place = items_.size();
        move_up(item);
        return true;
    }

    void remove(Item &item) noexcept
    {
        if (item.due_place == 0)
            return;
        Item &last = *items_[items_.size() - 1];
        if (&last != &item)
            exchange(item, last);
        items_.resize_down(items_.size() - 1);
        item.due_place = 0;
        if (&last != &item) {
            move_up(last);
            move_down(last);
        }
    }

private:
    Item *at(size_t place) const noexcept { return place <= items_.size() ? items_[place - 1] : nullptr; }

    void exchange(Item &a, Item &b) noexcept
    {
        std::swap(items_[a.due_place - 1], items_[b.due_place - 1]);
        std::swap(a.due_place, b.due_place);
    }

    void move_up(Item &item) noexcept
    {
        while (item.due_place > 1 && item.due_ms < at(item.due_place / 2)->due_ms)
            exchange(item, *at(item.due_place / 2));
    }

    Item *earlier_below(const Item &item) const noexcept
    {
        Item *const left  = at(item.due_place * 2);
        Item *const right = at(item.due_place * 2 + 1);
        return right && right->due_ms < left->due_ms ? right : left;
    }

    void move_down(Item &item) noexcept
    {
        for (Item *below = earlier_below(item); below && below->due_ms < item.due_ms; below = earlier_below(item))
            exchange(item, *below);
    }

    GrowArray<Item *> items_;
};

} // namespace tarn::standard

#endif
