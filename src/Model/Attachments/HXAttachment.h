#pragma once

#include <QString>

#include <memory>

class HXAttachment;

// Whoever carries attachments hears of each change of one: a sheet counts it as an edit, a group
// or filter writes its info file.
class HXAttachmentOwner {
public:
    virtual ~HXAttachmentOwner() = default;
    virtual void attachmentDidChange(HXAttachment &attachment) = 0;
};

// Side content of a sheet beyond its text (a note, a file, keywords, a writing goal); groups and
// filters carry a goal only. A value with an owner that it tells of every change. Copies have no
// owner. Main thread.
class HXAttachment {
public:
    virtual ~HXAttachment();

    std::weak_ptr<HXAttachmentOwner> owner() const { return m_owner; }
    void setOwner(const std::weak_ptr<HXAttachmentOwner> &owner) { m_owner = owner; }

    // The title of the kind, for lists and menus.
    virtual QString displayTitle() const = 0;
    virtual bool isEmpty() const = 0;
    virtual bool isEqual(const HXAttachment &other) const = 0;
    virtual std::shared_ptr<HXAttachment> copy() const = 0;

protected:
    HXAttachment() = default;
    HXAttachment(const HXAttachment &) = delete;
    HXAttachment &operator=(const HXAttachment &) = delete;
    // Every setter ends here.
    void noteAttachmentChange();
    static QString localizedTitle(const QString &key);

private:
    std::weak_ptr<HXAttachmentOwner> m_owner;
};

using HXAttachmentRef = std::shared_ptr<HXAttachment>;
