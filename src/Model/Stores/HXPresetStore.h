#pragma once

#include "Model/Stores/HXPresetObject.h"
#include "Model/Stores/HXUbiquitousStore.h"

#include <QList>
#include <QMap>

// A store of preset objects: built-in ones, which are reset and never removed, and the user's.
// Items are packages "<identifier>.<extension>", folders or ZIP archives of them. A built-in
// object is written only where the store lets the user edit built-ins, and only while it differs
// from its initial state. Subclasses give the kind of object and the built-in ones. Main thread.
class HXPresetStore : public HXUbiquitousStore {
    Q_OBJECT
public:
    // Enabled objects first, then by display name, case and locale aware.
    QList<HXPresetObjectRef> builtinObjects() const { return m_builtinObjects; }
    QList<HXPresetObjectRef> customObjects() const { return m_customObjects; }
    QList<HXPresetObjectRef> allObjects() const { return m_builtinObjects + m_customObjects; }

    void addObject(const HXPresetObjectRef &object);
    void removeObject(const HXPresetObjectRef &object);
    void resetObject(const HXPresetObjectRef &object);
    // Adds, replaces or (with null) removes the object of the identifier; a built-in one is
    // reset to its initial state.
    void setObject(const HXPresetObjectRef &object, const QString &identifier);
    HXPresetObjectRef objectForIdentifier(const QString &identifier) const;
    QList<HXPresetObjectRef> objectsEqualToObject(const HXPresetObject &object) const;
    void sortObjects();
    void sortCustomObjects();

    virtual QMap<QString, HXPresetObjectRef> initialBuiltinObjects() const = 0;
    virtual HXPresetObjectRef objectWithContentsOfURL(const QString &url, HXError *error) const = 0;
    virtual bool canEditBuiltinObjects() const { return false; }

    QStringList writableItems() const override;
    bool readItemFromURL(const QString &url, HXError *error) override;
    bool writeItem(const QString &identifier, const QString &url, HXError *error) override;
    void accomodateDeletionOfItemWithIdentifier(const QString &identifier) override;

Q_SIGNALS:
    void builtinObjectsChanged();
    void customObjectsChanged();

protected:
    HXPresetStore() = default;
    void initDefaultStateWithOptions(const HXStoreOptions &options) override;
    virtual void didAddObjectToStore(const HXPresetObjectRef &object);
    virtual void didRemoveObjectFromStore(const HXPresetObjectRef &object);

private:
    static void sort(QList<HXPresetObjectRef> &objects);
    bool equalsInitialState(const HXPresetObject &object) const;

    QList<HXPresetObjectRef> m_builtinObjects;
    QList<HXPresetObjectRef> m_customObjects;
    QMap<QString, HXPresetObjectRef> m_initialBuiltinObjects;
};
