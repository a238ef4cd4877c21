// The remote protocols of the product's daemons as the framework needs them: it reads selectors, argument
// types and the types of reply blocks from these declarations. They are the same as those of the C++ classes
// that the programs call (RemoteProtocol<...>): a method is added to both, and to the table in
// remote_methods.mm.
#pragma once

#import <Foundation/Foundation.h>

#include <cstdint>

// The records' classes are made at run time (remote_classes.hpp). Only their names count here.
@class QMRWispCloudScanResponseObjC, QMRWispConfigurationObjC, QMRWispFileScanParametersObjC;
@class QMRWispQvsResponseObjC, QMRWispScanCompleteSummaryObjC;

typedef void (^QMRErrorReply)(NSError* error);
typedef void (^QMRValueReply)(id value, NSError* error);
typedef void (^QMRDictionaryReply)(NSDictionary* entries, NSError* error);

// What every service of the product offers.
@protocol QMRSubscriptionProtocol
- (void)subscribeToChangesWithProtocol:(NSString*)protocolName
                           andEndpoint:(NSXPCListenerEndpoint*)endpoint
                                 reply:(void (^)(BOOL success))reply;
- (void)unsubscribeEndpoint:(NSXPCListenerEndpoint*)endpoint fromProtocol:(NSString*)protocolName;
@end

@protocol qmsettingsdProtocol <QMRSubscriptionProtocol>
- (void)getUserAndSystemSettingsWithReply:(void (^)(NSDictionary* userSettings, NSDictionary* systemSettings,
                                                    NSError* error))reply;
- (void)getUserSettingsWithReply:(QMRDictionaryReply)reply;
- (void)getSystemSettingsWithReply:(QMRDictionaryReply)reply;
- (void)getUserWhitelistWithReply:(void (^)(NSArray* whitelist, BOOL success))reply;
- (void)updateWispConfigurationState:(int64_t)state;
- (void)updateWispError:(NSError*)error;
- (void)setWispErrorState:(int64_t)state;
- (void)setTCCAccessGranted:(BOOL)granted;
- (void)getTidal2URLsWithCallback:(void (^)(NSError* error, NSArray* urls))callback;
@end

@protocol QMRWispScanProtocol
- (void)qvsScan:(NSURL*)url
     withTimeout:(uint32_t)timeout
    withCallback:(void (^)(QMRWispQvsResponseObjC* response, NSError* error))callback;
- (void)cloudScan:(NSURL*)url
     withMetadata:(NSDictionary*)metadata
      withTimeout:(uint32_t)timeout
     withCallback:(void (^)(QMRWispCloudScanResponseObjC* response, NSError* error))callback;
- (void)fileScan:(NSArray*)paths
     withClientDataPtr:(uint64_t)clientDataPtr
    withScanParameters:(QMRWispFileScanParametersObjC*)scanParameters
           withTimeout:(uint32_t)timeout
          withCallback:(void (^)(QMRWispScanCompleteSummaryObjC* summary, NSError* error))callback;
@end

@protocol QMRWispConfigurationProtocol
- (void)getConfiguration:(void (^)(QMRWispConfigurationObjC* configuration))callback;
- (void)setConfiguration:(QMRWispConfigurationObjC*)configuration withCallback:(QMRErrorReply)callback;
- (void)clearCache:(QMRErrorReply)callback;
- (void)getSettingValue:(int64_t)key withResponse:(QMRValueReply)response;
- (void)setSettingValue:(id)value forKey:(int64_t)key withCallback:(QMRErrorReply)callback;
- (void)notifyChannelUpdate:(uint64_t)channel withPath:(NSURL*)path withCallback:(QMRErrorReply)callback;
@end

@protocol QMRWispClientProtocol
- (void)getSettingValueSync:(int64_t)key withResponse:(QMRValueReply)response;
- (void)notifyChannelUpdateSync:(uint64_t)channel withPath:(NSURL*)path withCallback:(QMRErrorReply)callback;
@end

@protocol QMRWispProtocol <QMRWispScanProtocol,
                           QMRWispConfigurationProtocol,
                           QMRWispClientProtocol,
                           QMRSubscriptionProtocol>
@end

// What the settings daemon calls here.
@protocol RemoteActionEventsProtocol
- (void)remoteActionWasPushedWithName:(NSString*)name
                     progressListener:(NSXPCListenerEndpoint*)progressListener
                           actionData:(NSDictionary*)actionData
                    andFinishCallback:(void (^)(int64_t result))finishCallback;
@end

@protocol RemoteActionExecutedEventsProtocol
- (void)remoteActionWasExecutedWithName:(NSString*)name andCompletionResult:(int64_t)completionResult;
@end
