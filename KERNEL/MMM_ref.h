// Owned references: one count of a cell, given back when the owner leaves scope, also
// when an error unwinds through it.
//
// An MMM_ref holds either null or exactly one count of its cell. Constructing it from a
// Cell takes over a count the caller already holds; it does not retain (write
// `MMM_ref r(MMM_retained(c))` to keep a borrowed cell). Moving hands the count on and
// leaves the source null; there is no copy. take() hands the count to the caller and
// leaves the reference null: use it when the cell goes into a parent's child array or is
// returned. reset(c) gives back the count held and takes over c's. get() lends the cell
// without counting, and slot() lends the place itself to routines that replace the cell
// in place (copy-on-write), which keep the one-count rule.
//
// Everything is inline and noexcept and nothing allocates: the reference is one pointer,
// and releasing never raises. There is no implicit conversion to Cell, so that an owned
// reference cannot be passed to MMM_release by mistake.
#pragma once

#include "MMM_cell.h"

class MMM_ref {
public:
    MMM_ref() noexcept = default;
    explicit MMM_ref(Cell owned) noexcept : c_(owned) {}
    MMM_ref(MMM_ref&& o) noexcept : c_(o.c_) { o.c_ = nullptr; }
    MMM_ref& operator=(MMM_ref&& o) noexcept {
        Cell c = o.c_;
        o.c_ = nullptr;
        reset(c);
        return *this;
    }
    MMM_ref(const MMM_ref&) = delete;
    MMM_ref& operator=(const MMM_ref&) = delete;
    ~MMM_ref() { MMM_release(c_); }

    Cell get() const noexcept { return c_; }
    Cell* slot() noexcept { return &c_; }
    explicit operator bool() const noexcept { return c_ != nullptr; }

    // The count goes to the caller; the reference is left null.
    [[nodiscard]] Cell take() noexcept {
        Cell c = c_;
        c_ = nullptr;
        return c;
    }
    // Gives back the count held, then owns `owned` (a count the caller held).
    void reset(Cell owned = nullptr) noexcept {
        Cell old = c_;
        c_ = owned;
        MMM_release(old);
    }

private:
    Cell c_ = nullptr;
};
