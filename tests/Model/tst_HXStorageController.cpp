#include "HXTestSupport.h"
#include "Model/Persistence/HXExternalSource.h"
#include "Model/Persistence/HXLibrary.h"
#include "Model/Persistence/HXNativeGroup.h"
#include "Model/Persistence/HXStorageController.h"
#include "Model/Sheets/HXNativeSheet.h"
#include "Model/StorageTree/HXSheetHandle.h"
#include "Model/StorageTree/HXStaticContainer.h"
#include "Utilities/HXApplicationLog.h"
#include "Utilities/HXPropertyList.h"
#include "Utilities/HXUserDefaults.h"

#include <QDir>
#include <QFile>

using namespace Qt::StringLiterals;

namespace {

QStringList baseNames(const QList<std::shared_ptr<HXExternalSource>> &sources) {
    QStringList names;
    for (const auto &source : sources)
        names.append(QFileInfo(source->baseURL()).fileName());
    return names;
}

QVariantList settingsEntries() {
    return HXPropertyList::readFile(HXStorageController::externalSourceSettingsURL(), nullptr)
        .toList();
}

QString errorLog() {
    QFile file(HXApplicationLog::sharedInstance()->crashErrorLogURL());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

class Delegate : public HXStorageControllerDelegate {
public:
    void storageControllerDidReceiveWriteError(const std::shared_ptr<HXSheet> &sheet,
                                               const HXError &error) override {
        errors.append({sheet, error});
    }
    QList<QPair<std::shared_ptr<HXSheet>, HXError>> errors;
};

} // namespace

class TestStorageController : public QObject {
    Q_OBJECT

    QString m_home = QDir::homePath();

private slots:
    // The gate opens once the synced library was looked for, and closes while it is looked for
    // again after a change of account; the synced library comes and goes with its folder.
    void loadedGateAndAccountChange() {
        const QString cloud = m_home + u"/Cloud"_s;
        HXUserDefaults::standardUserDefaults().setObjectForKeyPath(
            cloud, HXLibrary::ubiquityContainerKey);
        const auto controller = HXStorageController::create();
        QVERIFY(controller->localLibrary() && !controller->localLibrary()->isInvalid());
        QVERIFY(!controller->ubiquitousLibrary());

        int ran = 0;
        controller->waitUntilLoaded([&] { ++ran; });
        QCOMPARE(ran, 0);
        QTRY_COMPARE(ran, 1);
        QVERIFY(!controller->ubiquitousLibrary()); // no folder, no synced library
        controller->waitUntilLoaded([&] { ++ran; });
        QCOMPARE(ran, 2);

        // The folder appears: noticed without being told.
        controller->setUbiquityCheckInterval(20);
        QVERIFY(QDir().mkpath(cloud));
        QTRY_VERIFY(controller->ubiquitousLibrary());
        const auto synced = controller->ubiquitousLibrary();
        QCOMPARE(synced->baseURL(), cloud + u"/Documents/Library"_s);
        QVERIFY(synced->arePersistentObjectsUbiquitous());
        QCOMPARE(controller->allStorages().first(), std::static_pointer_cast<HXStorage>(synced));
        const auto inbox = synced->defaultGroup();

        // Signing out: the library goes, its nodes are dead, and waiting waits again.
        controller->setUbiquityCheckInterval(60000);
        HXUserDefaults::standardUserDefaults().removeObjectForKeyPath(
            HXLibrary::ubiquityContainerKey);
        controller->ubiquityIdentityDidChange();
        QVERIFY(controller->isLoadingSources());
        QVERIFY(synced->isInvalid() && !inbox->isAlive());
        controller->waitUntilLoaded([&] { ++ran; });
        QCOMPARE(ran, 2);
        QTRY_COMPARE(ran, 3);
        QVERIFY(!controller->ubiquitousLibrary());
        QCOMPARE(HXTestSupport::assertionText([&] { controller->waitUntilLoaded(nullptr); }),
                 u"handler"_s);
    }

    // The list of added folders survives a restart in its order; what can't be resolved is kept
    // by its path, logged, or dropped; a folder put in the desktop's trash leaves the list.
    void externalSources() {
        QFile::remove(HXStorageController::externalSourceSettingsURL());
        QStringList folders;
        for (const QString &name : {u"One"_s, u"Two"_s, u"Three"_s, u"Gone"_s}) {
            folders.append(m_home + u"/Sources/"_s + name);
            QVERIFY(QDir().mkpath(folders.last()));
        }
        auto controller = HXStorageController::create();
        for (int i = 0; i < 3; ++i)
            QVERIFY(controller->addExternalSourceWithBaseURL(folders[i], i));
        controller->moveExternalSource(controller->externalSources().at(0), 3);
        QCOMPARE(baseNames(controller->externalSources()), (QStringList{u"Two"_s, u"Three"_s, u"One"_s}));
        QCOMPARE(settingsEntries().size(), 3);
        QVERIFY(settingsEntries().at(0).toMap().value(u"URL"_s).toString().endsWith(u"/Sources/Two/"_s));
        QVERIFY(!settingsEntries().at(0).toMap().value(u"bookmark"_s).toByteArray().isEmpty());
        // The same folder twice, while the first is fine, is a fault of the caller.
        QCOMPARE(HXTestSupport::assertionText(
                     [&] { controller->addExternalSourceWithBaseURL(folders[0], 0); }),
                 u"Attempt to override non-invalidate source"_s);

        // Edit the file as another version or a hand might leave it: a folder replaced by another
        // of the same name, an entry without identifier, one with nothing usable, a twin.
        QVariantList entries = settingsEntries();
        const QString twoIdentifier = entries[0].toMap().value(u"identifier"_s).toString();
        QVERIFY(QDir(folders[1]).removeRecursively() && QDir().mkpath(folders[1]));
        QVariantMap gone{{u"URL"_s, u"file://"_s + folders[3] + u"/"_s}};
        entries.append(gone);
        entries.append(QVariantMap{{u"URL"_s, u"not a url"_s}, {u"identifier"_s, u"x"_s}});
        entries.append(entries[1]);
        QVERIFY(HXPropertyList::writeFile(entries, HXStorageController::externalSourceSettingsURL(),
                                          nullptr));
        controller.reset();
        controller = HXStorageController::create();
        QCOMPARE(baseNames(controller->externalSources()),
                 (QStringList{u"Two"_s, u"Three"_s, u"One"_s, u"Gone"_s}));
        QCOMPARE(controller->externalSources().at(0)->identifier(), twoIdentifier);
        QVERIFY(errorLog().contains(u"Lost external source: file://"_s + folders[1]));
        QVERIFY(errorLog().contains(u"Duplicate external source: file://"_s + folders[2]));
        entries = settingsEntries();
        QCOMPARE(entries.size(), 4);
        QVERIFY(!entries[3].toMap().value(u"identifier"_s).toString().isEmpty());

        // A source whose folder vanished stays, invalid, until the folder is added anew.
        const auto gone4 = controller->externalSources().at(3);
        QVERIFY(QDir(folders[3]).removeRecursively());
        QTRY_VERIFY(gone4->isInvalid());
        QCOMPARE(controller->externalSources().size(), 4);
        QVERIFY(QDir().mkpath(folders[3]));
        const auto again = controller->addExternalSourceWithBaseURL(folders[3], 0);
        QVERIFY(again && !again->isInvalid());
        QCOMPARE(controller->externalSources().at(3), again);

        // To the desktop's trash: dropped from the list and from the file.
        const QString trash = HXStorage::systemTrashPath() + u"/files"_s;
        QVERIFY(QDir().mkpath(trash));
        QVERIFY(QDir().rename(folders[2], trash + u"/Three"_s));
        QTRY_COMPARE(baseNames(controller->externalSources()),
                     (QStringList{u"Two"_s, u"One"_s, u"Gone"_s}));
        QCOMPARE(settingsEntries().size(), 3);
        QVERIFY(!controller->addExternalSourceWithBaseURL(trash + u"/Three"_s, 0));
    }

    // Names that outlive the process: a map of storage and node, resolved in every storage.
    void persistentObjectsAndStaticContainers() {
        QFile::remove(HXStorageController::externalSourceSettingsURL());
        const QString folder = m_home + u"/Shared"_s;
        QVERIFY(QDir().mkpath(folder + u"/Notes-hxgroup"_s));
        const auto controller = HXStorageController::create();
        const auto source = controller->addExternalSourceWithBaseURL(folder, 0);
        const auto notes = source->rootGroup()->containers().value(0);
        QVERIFY(notes);
        const QVariant object = controller->persistentObjectForContainer(notes);
        QCOMPARE(object.toMap().value(u"root"_s).toString(), source->identifier());
        QCOMPARE(controller->containerForPersistentObject(object), notes);
        QVERIFY(!controller->sheetHandleForPersistentObject(object));
        QCOMPARE(controller->storageItemForOpeningURL(folder + u"/Notes-hxgroup"_s),
                 std::static_pointer_cast<HXStorageItem>(notes));

        const auto local = controller->localLibrary();
        const auto all = local->allFilter();
        QCOMPARE(controller->containerForPersistentObject(
                     controller->persistentObjectForContainer(all)),
                 std::static_pointer_cast<HXContainer>(all));
        QCOMPARE(all->filterParent(), std::static_pointer_cast<HXContainer>(local->rootGroup()));
        QVERIFY(!local->rootGroup()->containers().contains(all));

        // One entry for the trashes of all libraries: it forwards to the item's own trash and
        // never takes an index.
        HXStaticContainer trashes(HXStaticContainer::trashIdentifier, u"Trash"_s,
                                  {local->trash()});
        QVERIFY(trashes.isTrash());
        const auto inbox = std::static_pointer_cast<HXContainer>(local->defaultGroup());
        QCOMPARE(trashes.childMatchingStorageItem(inbox), local->trash());
        QCOMPARE(trashes.operationForInsertingContainer(inbox),
                 local->trash()->operationForInsertingContainer(inbox) &
                     ~HXContainer::OperationHonoursIndex);
        QCOMPARE(trashes.operationForInsertingContainer(notes), 0u);
    }

    // A save that failed with nobody to tell reaches the delegate on the main thread; a
    // notification without its error is a fault of the poster.
    void writeErrorsReachTheDelegate() {
        const auto controller = HXStorageController::create();
        Delegate delegate;
        controller->setDelegate(&delegate);
        const auto sheet = HXNativeSheet::sheetWithURL(m_home + u"/x.velmora"_s);
        const HXError error = HXError::withDescription(HXCocoaErrorDomain, 640, u"Disk full"_s);
        const auto center = HXNotificationCenter::defaultCenter();
        center->post(HXDocument::unhandledSaveErrorNotification, static_cast<HXDocument *>(sheet.get()),
                     {{u"error"_s, QVariant::fromValue(error)}});
        QTRY_COMPARE(delegate.errors.size(), 1);
        QCOMPARE(delegate.errors[0].first, std::static_pointer_cast<HXSheet>(sheet));
        QCOMPARE(delegate.errors[0].second, error);
        QCOMPARE(HXTestSupport::assertionText([&] {
                     center->post(HXDocument::unhandledSaveErrorNotification,
                                  static_cast<HXDocument *>(sheet.get()), {});
                 }),
                 u"Missing error message."_s);
    }
};

HX_TEST_MAIN(TestStorageController)
#include "tst_HXStorageController.moc"
