// Every public header of the library, for callers who want them all.
#pragma once

#include <platform/JsonWriter.h>
#include <platform/controller/Settings.h>
#include <platform/net/http/HttpClient.h>
#include <platform/net/http/HttpMessage.h>
#include <platform/net/http/Url.h>

#include <restclient/AsyncOperation.h>
#include <restclient/IWebRequest.h>
#include <restclient/IWebResponse.h>
#include <restclient/IWebSerializable.h>
#include <restclient/RestClient.h>
#include <restclient/Value.h>
#include <restclient/veltrun/TavixErrorResponse.h>
