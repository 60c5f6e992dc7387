// Every public header of the library, for callers who want them all.
#pragma once

#include <platform/JsonWriter.h>
#include <platform/controller/Settings.h>
#include <platform/net/http/HttpClient.h>
#include <platform/net/http/HttpMessage.h>
#include <platform/net/http/Url.h>

#include <restclient/AsyncOperation.h>
#include <restclient/AuthCallback.h>
#include <restclient/IWebRequest.h>
#include <restclient/IWebResponse.h>
#include <restclient/IWebSerializable.h>
#include <restclient/RestClient.h>
#include <restclient/Value.h>
#include <restclient/Variant.h>
#include <restclient/account/AccountClient.h>
#include <restclient/account/AccountUserClient.h>
#include <restclient/account/SplitUrl.h>
#include <restclient/authentication/AuthRenew.h>
#include <restclient/geo/GeoClient.h>
#include <restclient/httplite/RegistrationClient.h>
#include <restclient/locator/Endpoint.h>
#include <restclient/locator/LocationClient.h>
#include <restclient/storage/Metadata.h>
#include <restclient/storage/Resource.h>
#include <restclient/storage/ResourceClient.h>
#include <restclient/storage/ResourceResponse.h>
#include <restclient/storage/FileUploader.h>
#include <restclient/storage/StoreClient.h>
#include <restclient/veltrun/TavixErrorResponse.h>
