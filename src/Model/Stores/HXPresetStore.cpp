#include "Model/Stores/HXPresetStore.h"

#include "Utilities/HXAssert.h"
#include "Utilities/HXZipArchive.h"

#include <QCollator>
#include <QFileInfo>

void HXPresetStore::initDefaultStateWithOptions(const HXStoreOptions &) {
    m_initialBuiltinObjects = initialBuiltinObjects();
    for (const HXPresetObjectRef &initial : std::as_const(m_initialBuiltinObjects)) {
        const HXPresetObjectRef object = initial->copy();
        m_builtinObjects.append(object);
        if (canEditBuiltinObjects())
            didAddObjectToStore(object);
    }
    sort(m_builtinObjects);
    m_customObjects.clear();
}

void HXPresetStore::sort(QList<HXPresetObjectRef> &objects) {
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(objects.begin(), objects.end(), [&](const auto &a, const auto &b) {
        if (a->isEnabled() != b->isEnabled())
            return a->isEnabled();
        return collator.compare(a->displayName(), b->displayName()) < 0;
    });
}

void HXPresetStore::sortObjects() {
    sort(m_builtinObjects);
    sort(m_customObjects);
    emit builtinObjectsChanged();
    emit customObjectsChanged();
}

void HXPresetStore::sortCustomObjects() {
    sort(m_customObjects);
    emit customObjectsChanged();
}

HXPresetObjectRef HXPresetStore::objectForIdentifier(const QString &identifier) const {
    for (const HXPresetObjectRef &object : allObjects()) {
        if (object->identifier() == identifier)
            return object;
    }
    return nullptr;
}

QList<HXPresetObjectRef> HXPresetStore::objectsEqualToObject(const HXPresetObject &object) const {
    QList<HXPresetObjectRef> equal;
    for (const HXPresetObjectRef &candidate : allObjects()) {
        if (candidate->isEqualToObject(object))
            equal.append(candidate);
    }
    return equal;
}

void HXPresetStore::addObject(const HXPresetObjectRef &object) {
    HX_ASSERT(!objectForIdentifier(object->identifier()), u"Object '%@' already registered.",
              object->identifier());
    m_customObjects.append(object);
    sort(m_customObjects);
    didAddObjectToStore(object);
    emit customObjectsChanged();
    noteStoreChanged();
}

void HXPresetStore::removeObject(const HXPresetObjectRef &object) {
    HX_ASSERT(!object->isBuiltin(), u"Built-in objects cannot be removed!");
    HX_ASSERT(m_customObjects.contains(object),
              u"Object '%@' not contained in store -- cannot be removed", object->identifier());
    m_customObjects.removeOne(object);
    didRemoveObjectFromStore(object);
    emit customObjectsChanged();
    noteStoreChanged();
}

void HXPresetStore::resetObject(const HXPresetObjectRef &object) {
    HX_ASSERT(object->isBuiltin(), u"Only built-in objects can be reset!");
    HX_ASSERT(canEditBuiltinObjects(), u"Built-in objects cannot be edited!");
    HX_ASSERT(m_builtinObjects.contains(object),
              u"Object '%@' not contained in store -- cannot be reset", object->identifier());
    setObject(m_initialBuiltinObjects.value(object->identifier())->copy(), object->identifier());
}

void HXPresetStore::setObject(const HXPresetObjectRef &object, const QString &identifier) {
    const HXPresetObjectRef present = objectForIdentifier(identifier);
    if (present && present->isBuiltin()) {
        // Back to its initial state: a built-in object takes no values (it can't be changed),
        // so a fresh copy of the initial one takes its place.
        const qsizetype index = m_builtinObjects.indexOf(present);
        const HXPresetObjectRef initial = m_initialBuiltinObjects.value(identifier)->copy();
        if (canEditBuiltinObjects())
            didRemoveObjectFromStore(present);
        m_builtinObjects.replace(index, initial);
        if (canEditBuiltinObjects())
            didAddObjectToStore(initial);
        sort(m_builtinObjects);
        emit builtinObjectsChanged();
    } else {
        if (present) {
            m_customObjects.removeOne(present);
            didRemoveObjectFromStore(present);
        }
        if (object) {
            object->setIdentifier(identifier);
            m_customObjects.append(object);
            didAddObjectToStore(object);
        }
        sort(m_customObjects);
        emit customObjectsChanged();
    }
    noteStoreChanged();
}

void HXPresetStore::didAddObjectToStore(const HXPresetObjectRef &object) {
    if (object->isBuiltin())
        return;
    HXPresetObject *raw = object.get();
    connect(raw, &HXPresetObject::displayNameChanged, this, [this] {
        noteStoreChanged();
        sortCustomObjects();
    });
    connect(raw, &HXPresetObject::enabledChanged, this, [this] {
        noteStoreChanged();
        sortCustomObjects();
    });
    connect(raw, &HXPresetObject::imageChanged, this, [this] { noteStoreChanged(); });
}

void HXPresetStore::didRemoveObjectFromStore(const HXPresetObjectRef &object) {
    disconnect(object.get(), nullptr, this, nullptr);
}

bool HXPresetStore::equalsInitialState(const HXPresetObject &object) const {
    const HXPresetObjectRef initial = m_initialBuiltinObjects.value(object.identifier());
    return initial && initial->isEqualToObject(object);
}

// --- Files
// ----------------------------------------------------------------------------------------

QStringList HXPresetStore::writableItems() const {
    QStringList identifiers;
    for (const HXPresetObjectRef &object : m_customObjects)
        identifiers.append(object->identifier());
    if (canEditBuiltinObjects()) {
        for (const HXPresetObjectRef &object : m_builtinObjects) {
            // One back in its initial state has no file: the next write removes it.
            if (!equalsInitialState(*object))
                identifiers.append(object->identifier());
        }
    }
    return identifiers;
}

bool HXPresetStore::readItemFromURL(const QString &url, HXError *error) {
    const HXPresetObjectRef object = objectWithContentsOfURL(url, error);
    if (!object)
        return false;
    if (const HXPresetObjectRef present = objectForIdentifier(object->identifier()))
        present->setUsingObject(*object);
    else
        addObject(object);
    return true;
}

bool HXPresetStore::writeItem(const QString &identifier, const QString &url, HXError *error) {
    const HXPresetObjectRef object = objectForIdentifier(identifier);
    if (!object ||
        (object->isBuiltin() && (!canEditBuiltinObjects() || equalsInitialState(*object))))
        return false;
    const HXFileWrapperRef wrapper =
        object->fileWrapperRepresentationAsArchive(false, false, error);
    if (!wrapper)
        return false;
    if (const HXFileWrapperRef present = HXFileWrapper::fileWrapperWithPath(url, nullptr)) {
        HXFileWrapperRef unpacked = present;
        if (present->isRegularFile())
            unpacked =
                HXZipArchive::fileWrapperFromZipData(present->regularFileContents(), url, nullptr);
        if (unpacked && unpacked->hasSameContentsAs(*wrapper))
            return true;
    }
    // An archive gives way to a package folder in the same single exchange.
    return wrapper->writeToPath(url, error);
}

void HXPresetStore::accomodateDeletionOfItemWithIdentifier(const QString &identifier) {
    const HXPresetObjectRef object = objectForIdentifier(identifier);
    if (!object)
        return;
    if (object->isBuiltin()) {
        if (canEditBuiltinObjects() && !equalsInitialState(*object))
            resetObject(object);
        return;
    }
    removeObject(object);
}
