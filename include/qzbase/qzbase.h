// qzbase: the whole public interface. Include this one header.
#ifndef QZBASE_QZBASE_H
#define QZBASE_QZBASE_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzFrame.h>
// Families add their headers below, one line each, in the order of their layers.
#include <qzbase/QzMempool.h>
#include <qzbase/QzFormat.h>
#include <qzbase/QzConvert.h>
#include <qzbase/QzString.h>
#include <qzbase/QzException.h>
#include <qzbase/QzDebug.h>
#include <qzbase/QzFile.h>
#include <qzbase/QzLog.h>
#include <qzbase/QzSyncObject.h>
#include <qzbase/QzDelegate.h>
#include <qzbase/QzThread.h>
#include <qzbase/QzEventQueue.h>
#include <qzbase/QzTimeValue.h>
#include <qzbase/QzTimer.h>
#include <qzbase/QzFileMapping.h>
#include <qzbase/QzFileStream.h>
#include <qzbase/QzWaveFormat.h>
#include <qzbase/QzWaveFile.h>
#include <qzbase/QzRandom.h>
// QZ_PUBLIC_HEADERS_END

#endif  // QZBASE_QZBASE_H
