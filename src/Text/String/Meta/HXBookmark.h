#pragma once

#include <memory>

// A mark on a paragraph that the writer can jump back to. It has no content: a paragraph either
// has one or doesn't, and its place is the paragraph. Immutable and shared; any thread.
class HXBookmark : public std::enable_shared_from_this<HXBookmark> {
public:
    static std::shared_ptr<HXBookmark> bookmark() { return std::make_shared<HXBookmark>(); }
    // A bookmark is a value without state, so a copy is itself.
    std::shared_ptr<HXBookmark> copy() const {
        return std::const_pointer_cast<HXBookmark>(shared_from_this());
    }
};

using HXBookmarkRef = std::shared_ptr<HXBookmark>;
