// The change notifier that the mount manager gives each file system.
#ifndef LIBFS_EXPORT_NOTIFY_EXPORT_SERVICE_H_
#define LIBFS_EXPORT_NOTIFY_EXPORT_SERVICE_H_

#include <string>

#include "libfilesystem/notifier.h"

class IExportService;

// The kernel learns of changes through its own lookups, so this notifier has
// nothing to forward; the file system and its nodes still call it at every
// change, and a host that wants the events sets a notifier of its own.
class NotifyExportService : public INotifier {
  public:
    NotifyExportService(IExportService* service, std::wstring mountPoint)
        : service_(service), mountPoint_(std::move(mountPoint)) {}

    int ChangeNotify(NOTIFYEVENT, unsigned int, const void*, const void*) override { return 0; }

    // The event's name for log lines; "Unknown" for anything but one value of
    // the table (values are matched whole, not bit by bit).
    static const char* GetEventMsg(NOTIFYEVENT event);

  private:
    IExportService* service_;
    std::wstring mountPoint_;
};

#endif  // LIBFS_EXPORT_NOTIFY_EXPORT_SERVICE_H_
