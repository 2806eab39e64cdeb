// LinkedList: an intrusive, circular, doubly linked list node.
//
// An object that sits in a list embeds a LinkedList and stores itself as the
// node's ref; a list is a ring through a head node whose ref is null. A node
// whose next is itself is unlinked (a ring of one). The list allocates nothing
// and takes no locks: whoever owns the ring serialises access to it.
//
//   LinkedList head;                 // empty ring
//   item.node.link(&head, &item);    // head -> item -> head
//   for (LinkedList* n = head.next(); n->ref(); n = n->next()) ...
#pragma once

#include "qkExport.h"

class QK_EXPORT LinkedList {
  public:
    LinkedList() { init(); }
    ~LinkedList() { unlink(); }
    LinkedList(LinkedList const&) = delete;
    LinkedList& operator=(LinkedList const&) = delete;

    // Makes the node a ring of itself with a null ref, whatever it was before.
    void init() {
        next_ = prev_ = this;
        ref_ = nullptr;
    }

    int linked() const { return next_ != this; }

    // Inserts the node directly behind `after` (after -> node -> old successor),
    // first taking it out of whatever ring it is in, and stores `ref`.
    void link(LinkedList* after, void* ref) {
        unlink();
        LinkedList* successor = after->next_;
        next_ = successor;
        prev_ = after;
        successor->prev_ = this;
        after->next_ = this;
        ref_ = ref;
    }

    // Joins the neighbours and leaves the node a ring of itself; ref stays.
    void unlink() {
        if (next_ == this) return;
        prev_->next_ = next_;
        next_->prev_ = prev_;
        next_ = prev_ = this;
    }

    LinkedList* next() const { return next_; }
    LinkedList* prev() const { return prev_; }
    void* ref() const { return ref_; }

  private:
    LinkedList* next_;
    LinkedList* prev_;
    void* ref_;
};
