#include "app/GetFilesOptionsView.h"

#include "platform/DefaultsBinding.h"
#include "ui_GetFilesOptionsView.h"

GetFilesOptionsView::GetFilesOptionsView(platform::Defaults& store, QWidget* parent)
    : QWidget(parent), _ui(std::make_unique<Ui::GetFilesOptionsView>())
{
    _ui->setupUi(this);

    const QString idle = QStringLiteral("appInactive");
    const QString splat = QStringLiteral("getFiles.splat");
    const struct {
        QCheckBox* box;
        QString key;
        bool ignoredBySplat;
    } flags[] = {
        {_ui->includeArtworkCheckBox, QStringLiteral("getFiles.includeArtwork"), true},
        {_ui->includePurchasedContentCheckBox, QStringLiteral("getFiles.includePurchasedContent"), true},
        {_ui->includeRecordingsCheckBox, QStringLiteral("getFiles.includeRecordings"), true},
        {_ui->splatCheckBox, splat, false},
        {_ui->keepFolderCheckBox, QStringLiteral("keepFolder"), false},
    };
    for (const auto& flag : flags) {
        platform::bindChecked(flag.box, store, flag.key);
        // The include choices mean nothing while the whole media area is copied.
        platform::bindEnabled(flag.box, store, flag.ignoredBySplat ? QStringList{idle, u'!' + splat} : QStringList{idle});
    }
    platform::bindValue(_ui->syncDurationSpinBox, store, QStringLiteral("syncSim.duration"));
    platform::bindEnabled(_ui->syncDurationSpinBox, store, {idle});
}

GetFilesOptionsView::~GetFilesOptionsView() = default;
