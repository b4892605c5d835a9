// The bridge's Impl: construction, connection, the API client and the metadata service.
// The operations live in one file per resource kind (bridge_lookup.cpp, bridge_inventory.cpp,
// bridge_instances.cpp, bridge_disks.cpp, bridge_snapshots.cpp, bridge_images.cpp).
#include "bridge_impl.h"

#include <algorithm>
#include <functional>
#include <iostream>

#include "bridge_common.h"
#include "credentials_chain.h"
#include "json_util.h"
#include "hxutil/Random.h"

namespace hxbridge {

WaitBounds WaitBounds::Scaled(double scale) const {
    WaitBounds out;
    out.createDisk = createDisk.Scaled(scale);
    out.attachDisk = attachDisk.Scaled(scale);
    out.detachDisk = detachDisk.Scaled(scale);
    out.createImage = createImage.Scaled(scale);
    out.stopInstance = stopInstance.Scaled(scale);
    out.deletion = deletion.Scaled(scale);
    return out;
}

}  // namespace hxbridge

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

namespace {

constexpr const char* kDefaultRegion = "cn-hangzhou";

}  // namespace

Impl::Impl() = default;

Impl::Impl(BridgeDependencies deps) : deps_(std::move(deps)), fixedDependencies_(true) {}

bool Impl::Run(const std::function<void()>& op) {
    try {
        op();
        return true;
    } catch (const ApiError& e) {
        lastError_ = e.Describe();
    } catch (const std::exception& e) {
        lastError_ = std::string("InternalError: ") + e.what();
    } catch (...) {
        lastError_ = "InternalError: unexpected failure";
    }
    return false;
}

// ---------------------------------------------------------------- connection

namespace {
// The provider Connect signs with. A host that runs on ECS without a key on disk passes
// placeholders and sets ALIBABA_CLOUD_BRIDGE_CREDENTIALS=chain (see settings.h); otherwise
// the AccessKey of Connect is used as before, with ALIBABA_CLOUD_SECURITY_TOKEN if set.
std::shared_ptr<CredentialsProvider> ConnectCredentials(const BridgeDependencies& deps, const std::string& id,
                                                        const std::string& secret) {
    if (!deps.settings.credentialChain) {
        return std::make_shared<StaticCredentialsProvider>(Credentials{id, secret, deps.settings.securityToken},
                                                           "the AccessKey " + MaskAccessKeyId(id));
    }
    ChainDependencies chain;
    chain.env = ReadEnvironment;
    chain.http = deps.ecsTransport;
    chain.metadataHttp = deps.metadataTransport;
    chain.metadataEndpoint = deps.settings.metadataEndpoint;
    chain.refreshMargin = std::max(std::chrono::milliseconds(1),
                                   std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::minutes(5) * deps.settings.timeScale));
    return ResolveCredentialChain(chain);
}
}  // namespace

void Impl::Connect(const std::string& accessKeyId, const std::string& accessKeySecret) {
    RequireArg(accessKeyId, "AccessKey id");
    RequireArg(accessKeySecret, "AccessKey secret");
    Disconnect();
    if (!fixedDependencies_) {
        deps_.settings = BridgeSettings::FromEnvironment();
        deps_.ecsTransport.reset();
        deps_.metadataTransport.reset();
    }
    if (!deps_.ecsTransport) deps_.ecsTransport = std::make_shared<CurlTransport>();
    if (!deps_.metadataTransport) deps_.metadataTransport = std::make_shared<CurlTransport>(MetadataTransportOptions());
    job_ = JobLabel::FromEnvironment();
    const double scale = deps_.settings.timeScale;
    waits_ = WaitBounds().Scaled(scale);

    ApiClientOptions options;
    options.retry = RetryPolicy().Scaled(scale);
    options.sleep = deps_.time.sleep;
    if (deps_.settings.debug) {
        options.trace = [](const std::string& line) { std::cerr << "hx-bridge: " << line << std::endl; };
    }
    auto credentials = ConnectCredentials(deps_, accessKeyId, accessKeySecret);
    EndpointResolver endpoints{deps_.settings.ecsEndpoint, deps_.settings.vpcNetwork};
    metadata_ = std::make_unique<MetadataClient>(deps_.metadataTransport, deps_.settings.metadataEndpoint);
    api_ = std::make_unique<ApiClient>(deps_.ecsTransport, deps_.signer, credentials, endpoints, options);
    // Keyed by the secret's hash too, so that a wrong secret never reuses a right one's
    // answers: its Connect asks ECS and fails (the hash stays in this process).
    answers_ = SharedAnswers::For(deps_.settings.ecsEndpoint + "\n" + accessKeyId + "\n" +
                                  std::to_string(std::hash<std::string>{}(accessKeySecret)));
    try {
        Regions();  // proves the credentials and the endpoint; the list is needed anyway
    } catch (...) {
        api_.reset();
        answers_.reset();
        throw;
    }
}

void Impl::Disconnect() {
    api_.reset();
    regionOf_.clear();
    answers_.reset();
    pendingSnapshots_.clear();
    pendingDisks_.clear();
    vmCache_.clear();
}

ApiClient& Impl::Api() {
    if (!api_) throw ClientError("NotConnected", "the bridge is not connected (call Connect first)");
    return *api_;
}

json Impl::Call(const std::string& action, const std::string& regionId, Params params) {
    return Api().Call(action, regionId, std::move(params));
}

std::string Impl::CallForNewId(const std::string& action, const std::string& regionId, Params params,
                               const std::string& idField) {
    const std::string id = jv::Str(Call(action, regionId, std::move(params)), idField.c_str());
    if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", action + " returned no " + idField);
    return id;
}

std::string Impl::ClientToken() { return hxutil::RandomUuid(); }

std::string Impl::DefaultRegion() {
    if (!deps_.settings.defaultRegion.empty()) return deps_.settings.defaultRegion;
    if (auto r = ProxyRegion()) return *r;
    return kDefaultRegion;
}

// ---------------------------------------------------------------- metadata

std::optional<std::string> Impl::ProxyInstanceId(bool forceAsk) {
    if (proxyId_) return proxyId_;
    const auto now = deps_.time.now();
    if (!forceAsk && now < proxyNegativeUntil_) return std::nullopt;
    if (!metadata_) {
        if (!deps_.metadataTransport) deps_.metadataTransport = std::make_shared<CurlTransport>(MetadataTransportOptions());
        if (!fixedDependencies_ && deps_.settings.metadataEndpoint.empty()) {
            deps_.settings = BridgeSettings::FromEnvironment();
        }
        metadata_ = std::make_unique<MetadataClient>(deps_.metadataTransport, deps_.settings.metadataEndpoint.empty()
                                                                                  ? kDefaultMetadataEndpoint
                                                                                  : deps_.settings.metadataEndpoint);
    }
    proxyId_ = metadata_->Get("instance-id");
    // Off ECS every lookup costs a connect timeout: ask again only after a while.
    if (!proxyId_) proxyNegativeUntil_ = now + std::chrono::minutes(5);
    return proxyId_;
}

std::optional<std::string> Impl::ProxyRegion() {
    if (proxyRegion_) return proxyRegion_;
    if (!ProxyInstanceId(false)) return std::nullopt;
    proxyRegion_ = metadata_->Get("region-id");
    return proxyRegion_;
}

void Impl::GetLocalInstanceId(std::string& instanceId) {
    instanceId.clear();
    if (auto id = ProxyInstanceId(true)) {
        instanceId = *id;
        return;
    }
    throw ApiError(ApiError::Kind::Network, "MetadataUnavailable",
                   "the instance metadata service did not give an instance id; this machine is not an ECS "
                   "instance or cannot reach the service");
}

std::string Impl::OwnershipProxyId() { return ProxyInstanceId(false).value_or("unknown"); }

int Impl::AddOwnershipTags(Params& params, const std::string& role, bool incomplete, int first) {
    return hxbridge::AddOwnershipTags(params, first, OwnershipProxyId(), job_, role, incomplete);
}

void Impl::RequireOwned(Kind kind, const json& item, const std::string& id) {
    const std::string proxy = OwnershipProxyId();
    if (IsOwnedBy(item, proxy)) return;
    throw ApiError(ApiError::Kind::Client, "NotOwnedByThisProxy",
                   std::string("the ") + KindName(static_cast<int>(kind)) + " " + id +
                       " is not tagged as created by this bridge for proxy " + proxy + "; it is left alone");
}

void Impl::DeleteIfOwned(Kind kind, const std::string& id, const std::string& action, Params request) {
    auto [region, item] = Locate(kind, id);
    if (!item) {
        regionOf_.erase(id);  // gone already: what a delete is for
        return;
    }
    RequireOwned(kind, *item, id);
    Forget(id);
    try {
        Call(action, region, std::move(request));
    } catch (const ApiError& e) {
        // NotFound: gone since it was last seen (or by an earlier attempt); the wait confirms.
        if (!e.IsNotFound()) throw;
    }
    WaitUntilGone(kind, region, id);
    regionOf_.erase(id);
}

void Impl::WaitUntilGone(Kind kind, const std::string& regionId, const std::string& id) {
    WaitUntil(waits_.deletion, deps_.time, [&] { return !Find(kind, regionId, id).has_value(); },
              std::string(KindName(static_cast<int>(kind))) + " " + id + " disappearing after its deletion");
}
