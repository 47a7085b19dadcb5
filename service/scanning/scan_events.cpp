#include "service/scanning/scan_events.h"

namespace keldra {

Event eventOfFind(const ScanFind& find, const ScanStatus& scan) {
    Event event;
    event.kind = find.infected ? EventKind::FIND : EventKind::NOT_SCANNED;
    event.severity = find.infected ? EventSeverity::ALERT : EventSeverity::WARNING;
    event.task = scanKindName(scan.kind);
    event.path = find.path;
    event.signature = find.signature;
    (find.infected ? event.action : event.detail) = find.detail;
    return event;
}

Event eventOfFurther(EventKind kind, const ScanStatus& scan, std::uint64_t count) {
    Event event;
    event.kind = kind;
    event.severity = kind == EventKind::FIND ? EventSeverity::ALERT : EventSeverity::WARNING;
    event.task = scanKindName(scan.kind);
    event.detail = kind == EventKind::FIND ? "Further finds; all of them stand with the scan's results."
                                           : "Further files; all of them stand with the scan's results.";
    event.count = count;
    return event;
}

}  // namespace keldra
