// The keys of agent.ini, in the order in which the file is written.
//
// X(Name, section, key, type, default, write rule)
//   type:  Text, Bool, Int, LogPriority, RolloverCause (enumerations), Comm
//          (text held in the communication map), Reboot (a reboot-required
//          flag, see AgentConfig), and the special ExternalLogs, OtherPairs
//          and Checksum entries that stand for whole sections.
//   default: the text the model starts with; nullptr means the model sets
//          no value of its own (false / 0 until read or set).
//   write rule: when the key is written (see AgentConfig::serialise).
#pragma once

#define AGENT_CONFIG_KEYS(X)                                                                                  \
    X(AgentInitialGroup, u"Agent", u"agent.initial.group", Text, u"", Always)                                 \
    X(AgentConfigInitialGroup, u"Agent", u"agent.config.initial.group", Text, u"", Always)                    \
    X(ConfigInitialGroup, u"Agent", u"config.initial.group", Text, u"", Always)                               \
    X(AgentCharset, u"Agent", u"agent.charset", Text, u"", Always)                                            \
    X(AgentName, u"Agent", u"agent.name", Text, u"", Always)                                                  \
    X(AgentOpstateInterval, u"Agent", u"agent.opstate.interval", Text, u"", Always)                           \
    X(AgentId, u"Agent", u"agent.id", Comm, u"", NotEmptyOrServerManaged)                                     \
    X(AgentHttpUrl, u"Agent", u"agent.http.url", Comm, u"", NotEmptyOrServerManaged)                          \
    X(ServerListText, u"Agent", u"server.list", Comm, u"", NotEmptyOrServerManaged)                           \
    X(AgentUpdate, u"Agent", u"agent.update", Comm, u"", NotEmptyOrServerManaged)                             \
    X(AgentFeatures, u"Agent", u"agent.features", Text, u"", NotEmpty)                                        \
    X(FipsEnabled, u"FIPS", u"fips.enabled", Bool, u"true", Always)                                           \
    X(AutoretransEnabled, u"AutoRetrans", u"autoretrans.enabled", Bool, u"true", Always)                      \
    X(AutoretransInterval, u"AutoRetrans", u"autoretrans.interval", Int, u"600", Always)                      \
    X(AutoretransNow, u"AutoRetrans", u"autoretrans.now", Bool, u"false", Always)                             \
    X(AgentlogLogfile, u"AgentLog", u"agentlog.logfile", Text, u"", Always)                                   \
    X(AgentlogTraceMessages, u"AgentLog", u"agentlog.log.trace.messages", Bool, nullptr, Always)              \
    X(AgentlogFilePointer, u"AgentLog", u"agentlog.file.pointer", Text, u"", Always)                          \
    X(AgentlogRolloverPending, u"AgentLog", u"agentlog.rollover.pending", Bool, nullptr, ConfigToolRole)      \
    X(PlusPolicyFile, u"Driver", u"plus.policy.file", Text, u"", Always)                                      \
    X(PolicyName, u"Driver", u"policy.name", Text, u"", Always)                                               \
    X(PolicyId, u"Driver", u"policy.id", Text, u"", Always)                                                   \
    X(PolicyPath, u"Driver", u"policy.path", Text, u"", Always)                                               \
    X(UseBuiltinPolicy, u"Driver", u"use.builtin.policy", Bool, nullptr, Always)                              \
    X(IpsEnabled, u"Driver", u"ips.enabled", Bool, nullptr, Always)                                           \
    X(IpsRebootRequired, u"Driver", u"ips.reboot.required", Reboot, nullptr, RebootKey)                       \
    X(ConfigtoolRebootRequested, u"Driver", u"configtool.reboot.requested", Bool, nullptr, Always)            \
    X(SourceRebootRequested, u"Driver", u"source.reboot.requested", Int, u"0", Always)                        \
    X(FimRebootRequired, u"Driver", u"fim.reboot.required", Reboot, nullptr, RebootKey)                       \
    X(ConfigtoolFimRebootRequested, u"Driver", u"configtool.fim.reboot.requested", Bool, nullptr, Always)     \
    X(FimEnabled, u"Driver", u"fim.enabled", Bool, nullptr, Always)                                           \
    X(DriverlogLogfile, u"DriverLog", u"driverlog.logfile", Text, u"", Always)                                \
    X(DriverlogProfileLogfile, u"DriverLog", u"driverlog.profile.logfile", Text, u"", Always)                 \
    X(DriverlogFilePointer, u"DriverLog", u"driverlog.file.pointer", Text, u"", Always)                       \
    X(DriverlogRolloverPending, u"DriverLog", u"driverlog.rollover.pending", Bool, nullptr, Always)           \
    X(IdsPolicyInitialGroup, u"IDS", u"ids.policy.initial.group", Text, u"", Always)                          \
    X(IdsConfigInitialGroup, u"IDS", u"ids.config.initial.group", Text, u"", Always)                          \
    X(IdsPlusPolicyFile, u"IDS", u"ids.plus.policy.file", Text, u"", Always)                                  \
    X(IdsSignalTimeout, u"IDS", u"ids.signal.timeout", Int, u"120", Always)                                   \
    X(SslTrustStore, u"System", u"ssl.trustStore", Text, u"", Always)                                         \
    X(LogDiskUpperlimit, u"Log", u"log.disk.upperlimit", Int, u"97", Always)                                  \
    X(LogDiskLowerlimit, u"Log", u"log.disk.lowerlimit", Int, u"95", Always)                                  \
    X(LogBulktransferIdleinterval, u"Log", u"log.bulktransfer.idleinterval", Int, u"300", Always)             \
    X(LogBulktransferBackloginterval, u"Log", u"log.bulktransfer.backloginterval", Int, u"60", Always)        \
    X(LogBulktransferOpenfilelimit, u"Log", u"log.bulktransfer.openfilelimit", Int, u"16", Always)            \
    X(LogConsolidate, u"Log", u"log.consolidate", Bool, nullptr, Always)                                      \
    X(LogConsolidateValue, u"Log", u"log.consolidate.value", Int, u"5", ConsolidateOn)                        \
    X(LogDeleteEnabled, u"Log", u"log.delete.enabled", Bool, nullptr, Always)                                 \
    X(LogBulktransferEnabled, u"Log", u"log.bulktransfer.enabled", Bool, nullptr, Always)                     \
    X(LogCollectsha256hash, u"Log", u"log.collectsha256hash", Bool, u"false", Always)                         \
    X(LogReaderLimit, u"Log", u"log.reader.limit", Int, u"300", Always)                                       \
    X(LogWriterLimit, u"Log", u"log.writer.limit", Int, u"1", Always)                                         \
    X(LogPriority, u"Log", u"log.priority", LogPriority, u"norm", Always)                                     \
    X(LogRolloverCause, u"Log", u"log.rollover.cause", RolloverCause, u"none", Always)                        \
    X(LogRolloverValue, u"Log", u"log.rollover.value", Text, u"50", RolloverNotNone)                          \
    X(ExternalLogs, u"ExternalLogs", u"external.log", ExternalLogs, nullptr, Always)                          \
    X(PolicyStateErrorCode, u"PolicyState", u"policy.state.error.code", Int, u"0", Always)                    \
    X(PolicyStateErrorString, u"PolicyState", u"policy.state.error.string", Text, u"No Error", Always)        \
    X(IpsImportfileMaxlines, u"Policy", u"ips.importfile.maxlines", Int, nullptr, Always)                     \
    X(OverrideTimeout, u"PolicyOverride", u"override.timeout", Int, u"90", Always)                            \
    X(AppdataConfigFile, u"ApplicationData", u"appdata.config.file", Text, u"", Always)                       \
    X(AppdataConfigV2File, u"ApplicationData", u"appdata.configV2.file", Text, u"", Always)                   \
    X(AppdataRequested, u"ApplicationData", u"appdata.requested", Bool, u"false", Always)                     \
    X(AppdataRequestId, u"ApplicationData", u"appdata.request.id", Text, u"", Always)                         \
    X(AppdataMaxPayload, u"ApplicationData", u"appdata.max.payload", Int, u"5", Always)                       \
    X(AppdataSenddataInterval, u"ApplicationData", u"appdata.senddata.interval", Int, u"1", Always)           \
    X(AppdataRetryInterval, u"ApplicationData", u"appdata.retry.interval", Int, nullptr, Always)              \
    X(AppdataMaxRetries, u"ApplicationData", u"appdata.max.retries", Int, nullptr, Always)                    \
    X(UpdateQelVtNow, u"Updraft", u"update.qel.vt.now", Bool, nullptr, Always)                                \
    X(UpdateVeltriumRevoNow, u"Updraft", u"update.veltrium.revo.now", Bool, nullptr, Always)                  \
    X(UpdateVeltriumSettingsNow, u"Updraft", u"update.veltrium.settings.now", Bool, nullptr, Always)          \
    X(UpdateVeltriumVtNow, u"Updraft", u"update.veltrium.vt.now", Bool, nullptr, Always)                      \
    X(QelVtUdpkgPath, u"Updraft", u"qel.vt.udpkg.path", Text, u"", Always)                                    \
    X(VeltriumRevoUdpkgPath, u"Updraft", u"veltrium.revo.udpkg.path", Text, u"", Always)                      \
    X(VeltriumSettingsUdpkgPath, u"Updraft", u"veltrium.settings.udpkg.path", Text, u"", Always)              \
    X(VeltriumVtUdpkgPath, u"Updraft", u"veltrium.vt.udpkg.path", Text, u"", Always)                          \
    X(QelVtMetadata, u"Updraft", u"qel.vt.metadata", Text, u"", ContentMetadata)                              \
    X(VeltriumRevoMetadata, u"Updraft", u"veltrium.revo.metadata", Text, u"", ContentMetadata)                \
    X(VeltriumSettingsMetadata, u"Updraft", u"veltrium.settings.metadata", Text, u"", ContentMetadata)        \
    X(VeltriumVtMetadata, u"Updraft", u"veltrium.vt.metadata", Text, u"", ContentMetadata)                    \
    X(OtherPairs, u"Other", nullptr, OtherPairs, nullptr, Always)                                             \
    X(PollingEnabled, u"Polling", u"polling.enabled", Comm, u"", Always)                                      \
    X(PollingInterval, u"Polling", u"polling.interval", Comm, u"", Always)                                    \
    X(FailbackIntervalText, u"Polling", u"failback.interval", Comm, u"", Always)                              \
    X(TcpEnabled, u"TCP", u"tcp.enabled", Comm, u"", Always)                                                  \
    X(TcpPort, u"TCP", u"tcp.port", Comm, u"", Always)                                                        \
    X(AgentConnectionTimeout, u"Communication", u"agent.connection.timeout", Comm, u"", Always)               \
    X(ApplicationsChecksum, u"GenericDiscoveryChecksums", u"applications.checksum", Text, u"", Always)        \
    X(FilesChecksum, u"GenericDiscoveryChecksums", u"files.checksum", Text, u"", Always)                      \
    X(Checksum, u"Checksum", u"agentini.checksum", Checksum, nullptr, Always)                                 \
    /* Read and kept, never written back. */                                                                 \
    X(DriverlogUnprocessedLogs, nullptr, u"driverlog.unprocessed.logs", Text, u"", Never)                     \
    X(AgentlogUnprocessedLogs, nullptr, u"agentlog.unprocessed.logs", Text, u"", Never)                       \
    X(IdsLogRule, nullptr, u"ids.log.rule", Text, u"", Never)                                                 \
    X(LogRule, nullptr, u"log.rule", Text, u"", Never)                                                        \
    X(LogDiskEnabled, nullptr, u"log.disk.enabled", Bool, nullptr, Never)
