// hash_table.h - a table of objects that carry their own links.
#ifndef TARN_STANDARD_HASH_TABLE_H
#define TARN_STANDARD_HASH_TABLE_H

#include "../../base/memory.h"

#include <cstddef>
#include <cstdint>

namespace tarn::standard {

// What an object that stands in a HashTable derives from.
template <class Item> struct InTable {
    Item    *next_in_bucket = nullptr;
    uint64_t hash           = 0;
};

// Items stay where they are and belong to the caller. insert() never fails: without memory for more buckets there are
// only more items in each.
template <class Item> class HashTable {
public:
    HashTable()                             = default;
    HashTable(const HashTable &)            = delete;
    HashTable &operator=(const HashTable &) = delete;

    size_t size() const noexcept { return size_; }

    // The item with this hash of which is_wanted(item) is true, or null.
    template <class IsWanted> Item *find(uint64_t hash, IsWanted &&is_wanted) const noexcept
    {
        for (Item *item = *bucket(hash); item; item = item->next_in_bucket)
            if (item->hash == hash && is_wanted(*item))
                return item;
        return nullptr;
    }

    void insert(Item &item, uint64_t hash) noexcept
    {
        if (size_ >= buckets())
            grow();
        item.hash = hash;
        link(item);
        ++size_;
    }

    void remove(Item &item) noexcept
    {
        Item **at = bucket(item.hash);
        while (*at != &item)
            at = &(*at)->next_in_bucket;
        *at = item.next_in_bucket;
        --size_;
    }

    // In no order. The visitor may remove the item that it is given.
    template <class Visit> void for_each(Visit &&visit)
    {
        for (size_t i = 0; i < buckets(); ++i)
            for (Item *item = *bucket(i), *next; item; item = next) {
                next = item->next_in_bucket;
                visit(*item);
            }
    }

private:
    size_t buckets() const noexcept { return mask_ + 1; }
    Item **bucket(uint64_t hash) noexcept { return many_ ? &many_[hash & mask_] : &single_; }

    Item *const *bucket(uint64_t hash) const noexcept { return many_ ? &many_[hash & mask_] : &single_; }

    void link(Item &item) noexcept
    {
        Item **const first  = bucket(item.hash);
        item.next_in_bucket = *first;
        *first              = &item;
    }

    void grow() noexcept
    {
        constexpr size_t kFewest = 16;
        const size_t     wanted  = many_ ? buckets() * 2 : kFewest;
        HashTable        bigger;
        bigger.many_ = allocate_zeroed<Item *>(wanted);
        if (!bigger.many_)
            return;
        bigger.mask_ = wanted - 1;
        for_each([&](Item &item) { bigger.link(item); });
        many_.swap(bigger.many_);
        mask_   = bigger.mask_;
        single_ = nullptr;
    }

    owned<Item *> many_;             // empty at first; then a power of two
    Item         *single_ = nullptr; // the only bucket while there are not many
    size_t        mask_   = 0;
    size_t        size_   = 0;
};

} // namespace tarn::standard

#endif
