#ifndef ZQ_INTERNAL_ZQINTRUSIVE_H
#define ZQ_INTERNAL_ZQINTRUSIVE_H

#include "zq/adt/zqlist.h"

// Intrusive lists over zqlist. An item type derives from zqlistlink, so an item is its own link.

// `position` null inserts at the head.
inline void list_insert_after(zqlist *list, zqlistlink *position, zqlistlink *link)
{
    link->prev = position;
    link->next = position ? position->next : list->head;
    (position ? position->next : list->head) = link;
    (link->next ? link->next->prev : list->tail) = link;
}

inline void list_append(zqlist *list, zqlistlink *link)
{
    list_insert_after(list, list->tail, link);
}

inline void list_unlink(zqlist *list, zqlistlink *link)
{
    (link->prev ? link->prev->next : list->head) = link->next;
    (link->next ? link->next->prev : list->tail) = link->prev;
    link->next = nullptr;
    link->prev = nullptr;
}

template <class T>
T *list_first(const zqlist *list)
{
    return static_cast<T *>(list->head);
}

// Unlinks and returns the first item, or null.
template <class T>
T *list_take_first(zqlist *list)
{
    T *item = list_first<T>(list);
    if (item)
        list_unlink(list, item);
    return item;
}

// The items from head to tail; the body of the loop may unlink or destroy the item it was given.
template <class T>
class list_items {
  public:
    explicit list_items(const zqlist *list) : head(list->head) {}

    class iterator {
      public:
        explicit iterator(zqlistlink *link) : current(link), next(link ? link->next : nullptr) {}
        T *operator*() const { return static_cast<T *>(current); }
        iterator &operator++() { return *this = iterator(next); }
        bool operator!=(const iterator &other) const { return current != other.current; }

      private:
        zqlistlink *current;
        zqlistlink *next;
    };

    iterator begin() const { return iterator(head); }
    iterator end() const { return iterator(nullptr); }

  private:
    zqlistlink *head;
};

#endif
