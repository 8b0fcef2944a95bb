#pragma once
/// Every absolute path of the device that the system names, as the device knows it. Opened through
/// device_path_map (device_path.h) only.

#define ZOL_PATH_GST_LOG_CONF "/usr/bin/gst_log.conf"  ///< configuration of the runtime log
#define ZOL_PATH_CONSOLE "/dev/console"                ///< assertion reports
#define ZOL_PATH_RELEASE_MARKER "/etc/release"         ///< can be opened for update: assertions are survived
#define ZOL_PATH_DEBUG_MARKER "/etc/debug"             ///< present on debug images
#define ZOL_PATH_UNIQUE_ID "/proc/global_uniqueID"     ///< tgid, at most 36 bytes
#define ZOL_PATH_LIFE_CYCLE_ID "/proc/life_cycleID"    ///< lcid, at most 10 bytes
#define ZOL_PATH_CHIP_ID "/proc/soq_chipid_val"        ///< four hexadecimal words
#define ZOL_PATH_STATE_DIR "/var/lib/zol"              ///< persistent state, survives updates
#define ZOL_PATH_POLICY ZOL_PATH_STATE_DIR "/policy.xml"  ///< the current policy, byte for byte as received
#define ZOL_PATH_KPI_DB ZOL_PATH_STATE_DIR "/kpi.db"      ///< KPI event log
#define ZOL_PATH_VCONF_DIR \
    ZOL_PATH_STATE_DIR "/vconfd"  ///< durable keys ("db/", "file/"), the key service's own
#define ZOL_PATH_VCONF_MEMORY_DIR \
    "/run/zol/vconfd"  ///< keys that last until power-off ("memory/"), its own, too
#define ZOL_PATH_OLD_VCONF_DIR ZOL_PATH_STATE_DIR "/vconf"        ///< what earlier versions shared instead
#define ZOL_PATH_OLD_VCONF_MEMORY_DIR "/run/zol/vconf"            ///< the same for memory keys
#define ZOL_PATH_LOG_DIR "/var/log/zol"                           ///< log files where there is no journal
#define ZOL_PATH_DEBUG_LOG ZOL_PATH_LOG_DIR "/debug.log"          ///< the maker's debug channel
#define ZOL_PATH_REPORT_ROOT "/tmp/zol"                           ///< report folders
#define ZOL_PATH_TRACE_DUMP "/tmp/zol/CV_dump/"                   ///< trace dumps before they go to a stick
#define ZOL_PATH_TRAP_CONF "/etc/zol/traps.conf"                  ///< trap conditions of the tracing library
#define ZOL_PATH_KEY_COMBINATIONS "/etc/zol/keycombination.conf"  ///< ids and the keys held together
#define ZOL_PATH_COLLECTOR_CONF "/etc/zol/collector.conf"         ///< options of the collector
#define ZOL_PATH_COLLECTOR_SPOOL "/var/lib/zol-collector"         ///< reports that the collector keeps

#define ZOL_PATH_RUN_DIR "/run/zol"                            ///< what lasts until power-off
#define ZOL_PATH_DAEMON_LOCK ZOL_PATH_RUN_DIR "/daemon.lock"   ///< locked by the running daemon
#define ZOL_PATH_JOURNAL_SOCKET "/run/systemd/journal/socket"  ///< present where there is a journal
