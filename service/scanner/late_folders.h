#pragma once

namespace keldra {

/// From here on a folder that the library makes for a file is made only once something is put into it, which for most
/// files never happens. On disk it costs more than many a scan. To be called before each scan.
void makeFoldersLate();

}  // namespace keldra
