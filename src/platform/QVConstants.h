// Key constants and fixed identifiers shared by the agent, the destinations and the host. Their values
// are keys of stored preferences and keychain service names: they never change.
#pragma once

inline constexpr const char* kQVIdentifierKey = "id";
inline constexpr const char* kQVTitleKey = "title";
inline constexpr const char* kQVPathKey = "path";
inline constexpr const char* kQVItemsKey = "items";
inline constexpr const char* kQVSchedulePeriodKey = "period";

inline constexpr const char* kQVProductName = "Stellwin";
inline constexpr const char* kQVProductID = "Stellwin";
inline constexpr const char* kQVErrorDomain = "com.stellwin.backup.ErrorDomain";
inline constexpr const char* VendorIdentifierPrefix = "com.stellwin";
