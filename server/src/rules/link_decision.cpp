#include "rules/link_decision.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <cstring>

namespace tovrel::server {
namespace {

constexpr std::array<std::string_view, 7> kNames = {"",    "schedule",  "quiet-hours", "control",
                                                    "cap", "frequency", "fatigue"};

}  // namespace

std::string_view suppressionName(Suppression reason) {
    return kNames[static_cast<std::size_t>(reason)];
}

Suppression suppressionFrom(std::string_view name) {
    for (std::size_t i = 1; i < kNames.size(); ++i) {
        if (kNames[i] == name) {
            return static_cast<Suppression>(i);
        }
    }
    return Suppression::none;
}

Suppression decideLink(const LinkFacts& facts) {
    if (facts.outsideSchedule) {
        return Suppression::schedule;
    }
    if (facts.quietHours) {
        return Suppression::quietHours;
    }
    if (facts.control) {
        return Suppression::control;
    }
    if (facts.perDeviceCap && facts.liveLinks >= *facts.perDeviceCap) {
        return Suppression::lifetimeCap;
    }
    if (facts.caps) {
        for (std::size_t i = 0; i < facts.caps->size() && i < facts.deliveredInCap.size(); ++i) {
            if (facts.deliveredInCap[i] >= (*facts.caps)[i].count) {
                return Suppression::frequencyCap;
            }
        }
    }
    if (facts.dailyOfferCap && facts.deliveredToday >= *facts.dailyOfferCap) {
        return Suppression::fatigueCap;
    }
    return Suppression::none;
}

std::string describeHold(Suppression reason, const CampaignRules* campaign,
                         std::optional<std::int64_t> perDeviceCap, const AppRules& app) {
    switch (reason) {
        case Suppression::none:
            return "";
        case Suppression::schedule:
            return campaign && campaign->schedule
                       ? "outside its schedule (" + campaign->schedule->describe() + ")"
                       : "outside its schedule";
        case Suppression::quietHours:
            return app.quietHours ? "quiet hours (" + app.quietHours->describe() + ")" : "quiet hours";
        case Suppression::control:
            return "control group";
        case Suppression::lifetimeCap:
            return perDeviceCap ? "campaign cap of " + std::to_string(*perDeviceCap) : "campaign cap";
        case Suppression::frequencyCap: {
            std::string caps;
            for (const FrequencyCap& cap : campaign ? campaign->caps : std::vector<FrequencyCap>{}) {
                caps += (caps.empty() ? " " : ", ") + std::to_string(cap.count) + " per " + cap.per;
            }
            return "frequency cap" + caps;
        }
        case Suppression::fatigueCap:
            return app.dailyOfferCap
                       ? "daily cap of " + std::to_string(*app.dailyOfferCap) + " offers across campaigns"
                       : "daily cap across campaigns";
    }
    return "";
}

bool inControlGroup(std::string_view key, std::string_view deviceId, std::string_view campaign,
                    double share) {
    if (share <= 0) {
        return false;
    }
    // The device id's length goes first, so no pair of names runs into another.
    std::string message = std::to_string(deviceId.size()) + ":";
    message.append(deviceId).append(campaign);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest.data(), &size);
    std::uint64_t draw = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        draw = draw << 8 | digest[i];
    }
    // The top 53 bits as a number in [0, 1).
    return static_cast<double>(draw >> 11) * 0x1.0p-53 < share;
}

}  // namespace tovrel::server
