#include "Model/Stores/HXMarkupStore.h"

#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXAssert.h"
#include "Utilities/HXFileSystem.h"
#include "Utilities/HXUniqueIdentifier.h"

#include <QCollator>
#include <QFile>
#include <QFileInfo>

std::shared_ptr<HXMarkupStore> HXMarkupStore::create(const HXStoreOptions &options) {
    std::shared_ptr<HXMarkupStore> store(new HXMarkupStore);
    store->initWithOptions(options);
    return store;
}

std::shared_ptr<HXMarkupStore> HXMarkupStore::globalStore() {
    static const std::shared_ptr<HXMarkupStore> store = create();
    return store;
}

bool HXMarkupStore::isIntrinsicIdentifier(const QString &identifier) {
    return HXMarkup::intrinsicMarkups().contains(identifier);
}

std::shared_ptr<HXMarkupObserver> HXMarkupStore::observer() {
    return std::shared_ptr<HXMarkupObserver>(shared_from_this(),
                                             static_cast<HXMarkupObserver *>(this));
}

void HXMarkupStore::initDefaultStateWithOptions(const HXStoreOptions &) {
    for (const auto &markup : HXMarkup::intrinsicMarkups())
        addMarkup(markup->copy());
}

void HXMarkupStore::reset() {
    const auto markups = m_markups.values();
    for (const auto &markup : markups)
        removeMarkup(markup);
    initDefaultStateWithOptions({});
}

void HXMarkupStore::addMarkup(const std::shared_ptr<HXMarkup> &markup) {
    {
        const std::lock_guard lock(m_markupsMutex);
        m_markups.insert(markup->identifier(), markup);
    }
    markup->addMarkupObserver(observer());
    emit availableMarkupsChanged();
}

void HXMarkupStore::removeMarkup(const std::shared_ptr<HXMarkup> &markup) {
    markup->removeMarkupObserver(observer());
    {
        const std::lock_guard lock(m_markupsMutex);
        m_markups.remove(markup->identifier());
    }
    emit availableMarkupsChanged();
}

void HXMarkupStore::markupChangedStructure(HXMarkup &) {
    noteStoreChanged();
}

std::shared_ptr<HXMarkup> HXMarkupStore::defaultIntrinsicMarkup() const {
    return HXMarkup::defaultMarkupAmong(markups());
}

QMap<QString, std::shared_ptr<HXMarkup>> HXMarkupStore::markups() const {
    const std::lock_guard lock(m_markupsMutex);
    return m_markups;
}

std::shared_ptr<HXMarkup> HXMarkupStore::markupWithIdentifier(const QString &identifier) const {
    return markups().value(identifier);
}

std::shared_ptr<HXMarkup> HXMarkupStore::markupEqualToMarkup(const HXMarkup &markup) const {
    const auto all = markups();
    if (const auto same = all.value(markup.identifier()); same && same->isEqualToMarkup(markup))
        return same;
    for (const auto &candidate : all) {
        if (candidate->isEqualToMarkup(markup))
            return candidate;
    }
    return nullptr;
}

std::shared_ptr<HXMarkup> HXMarkupStore::replacementMarkupForMarkup(const HXMarkup &markup) const {
    return markups().value(markup.identifier());
}

QString HXMarkupStore::registerMarkup(const std::shared_ptr<HXMarkup> &markup) {
    HX_ASSERT(markup != nullptr, u"markup != nil");
    HX_ASSERT(std::none_of(m_markups.cbegin(), m_markups.cend(),
                           [&](const auto &present) { return present == markup; }),
              u"![_markups allKeysForObject: markup].count");
    markup->setIdentifier(HXNewUniqueIdentifier());
    addMarkup(markup);
    noteStoreChanged();
    return markup->identifier();
}

void HXMarkupStore::updateMarkupWithIdentifier(const QString &identifier, const HXMarkup &markup) {
    const auto present = m_markups.value(identifier);
    HX_ASSERT(present != nullptr, u"No markup for identifier %@", identifier);
    present->setUsingMarkup(markup);
}

void HXMarkupStore::removeMarkupWithIdentifier(const QString &identifier) {
    HX_ASSERT(!isIntrinsicIdentifier(identifier), u"Intrinsic markups must not be removed");
    if (const auto markup = m_markups.value(identifier)) {
        removeMarkup(markup);
        noteStoreChanged();
    }
}

void HXMarkupStore::resetIntrinsicMarkupWithIdentifier(const QString &identifier) {
    HX_ASSERT(isIntrinsicIdentifier(identifier), u"Non-intrinsic markups cannot be reset");
    const auto markup = m_markups.value(identifier);
    HX_ASSERT(markup != nullptr, u"Non intrinsic markup found!");
    markup->setUsingMarkup(*HXMarkup::intrinsicMarkups().value(identifier));
    noteStoreChanged();
}

QList<std::shared_ptr<HXMarkup>> HXMarkupStore::availableMarkups() const {
    QList<std::shared_ptr<HXMarkup>> list = markups().values();
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(list.begin(), list.end(), [&](const auto &a, const auto &b) {
        const bool aBuiltIn = isIntrinsicIdentifier(a->identifier());
        if (aBuiltIn != isIntrinsicIdentifier(b->identifier()))
            return aBuiltIn;
        return collator.compare(a->displayName(), b->displayName()) < 0;
    });
    return list;
}

// --- Files
// ----------------------------------------------------------------------------------------

QStringList HXMarkupStore::writableItems() const {
    QStringList identifiers;
    for (const auto &markup : m_markups) {
        // A built-in markup that is as it came needs no file; a file it had goes.
        const auto original = HXMarkup::intrinsicMarkups().value(markup->identifier());
        if (original && original->isEqualToMarkup(*markup))
            continue;
        identifiers.append(markup->identifier());
    }
    return identifiers;
}

bool HXMarkupStore::readItemFromURL(const QString &url, HXError *error) {
    QFile file(url);
    if (!file.open(QIODevice::ReadOnly)) {
        const HXError failure = HXError::fileError(
            HXFileReadUnknownError, url,
            QStringLiteral("The file “%1” couldn’t be opened.").arg(url), file.errorString());
        HXApplicationLog::sharedInstance()->logError(
            u"Unable to read markup file from url %@. Error: %@.", url,
            failure.localizedFailureReason());
        HXSetError(error, failure);
        return false;
    }
    HXError failure;
    const auto markup = HXMarkup::markupWithData(file.readAll(), &failure);
    if (!markup) {
        HXApplicationLog::sharedInstance()->logError(
            u"Unable to read markup from url %@. Error: %@.", url,
            failure.localizedFailureReason().isEmpty() ? failure.localizedDescription()
                                                       : failure.localizedFailureReason());
        HXSetError(error, failure);
        return false;
    }
    if (markup->identifier().isEmpty())
        markup->setIdentifier(QFileInfo(url).completeBaseName());
    if (const auto present = m_markups.value(markup->identifier())) {
        if (!present->isEqual(*markup) || present->displayName() != markup->displayName()) {
            if (!isIntrinsicIdentifier(present->identifier()))
                present->setDisplayName(markup->displayName());
            present->setUsingMarkup(*markup);
        }
        return true;
    }
    addMarkup(markup);
    return true;
}

bool HXMarkupStore::writeItem(const QString &identifier, const QString &url, HXError *error) {
    const auto markup = m_markups.value(identifier);
    if (!markup)
        return false;
    const auto original = HXMarkup::intrinsicMarkups().value(identifier);
    if (original && original->isEqualToMarkup(*markup))
        return true;
    const QByteArray data = markup->XMLData();
    QFile present(url);
    if (present.open(QIODevice::ReadOnly) && present.readAll() == data)
        return true;
    present.close();
    HXError failure;
    if (!HXFileSystem::writeFileAtomically(data, url, &failure)) {
        HXApplicationLog::sharedInstance()->logError(
            u"Writing of markup %@ (%@) to url %@ failed with error: %@.", markup->displayName(),
            identifier, url, failure.localizedFailureReason());
        HXSetError(error, failure);
        return false;
    }
    return true;
}

void HXMarkupStore::accomodateDeletionOfItemWithIdentifier(const QString &identifier) {
    if (isIntrinsicIdentifier(identifier)) {
        const auto markup = m_markups.value(identifier);
        const auto original = HXMarkup::intrinsicMarkups().value(identifier);
        if (markup && !original->isEqualToMarkup(*markup))
            resetIntrinsicMarkupWithIdentifier(identifier);
        return;
    }
    if (const auto markup = m_markups.value(identifier)) {
        removeMarkup(markup);
        noteStoreChanged();
    }
}
