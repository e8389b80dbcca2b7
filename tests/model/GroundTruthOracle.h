// What has to come out: decided from the description alone, with the knowledge of who really stands
// behind a key, so that what strangers add does not even come into view.
#pragma once

#include "model/GroundTruthWorld.h"

#include <functional>
#include <map>
#include <set>
#include <tuple>
#include <vector>

namespace Velantrix::Test::Truth {

class Oracle {
 public:
  Oracle(const World& world, const Offer& offer) : world_(world), offer_(offer) {}

  /// What is right for a certificate of the path when those above it are good. Where the standards
  /// leave it open which of what was found is looked at there is one verdict for each reading.
  Verdict verdict(int depth, int reading = 0);
  static constexpr int kReadings = 64;

 private:
  using Certificates = std::set<int>;

  /// Where the standards leave open what is taken.
  struct Reading {
    bool pooled;        ///< what was found at one distribution point may serve another
    bool firstOfEqual;  ///< of two lists of the same number and time
    bool lazy;   ///< what rests on nothing but lists found so far does without the issuer's name
    bool named;  ///< only a complete list silences its own key
    bool unordered;  ///< where some have numbers and some have none, all count
    bool late;       ///< what a hypothesis has brought to light counts without it
  };
  /// What a decision may take for granted, or not.
  struct Assumptions {
    Certificates unrevoked;  ///< for the time being: their decision is what this one is for
    Certificates barred;     ///< nothing may rest on these
    bool operator<(const Assumptions& other) const {
      return std::tie(unrevoked, barred) < std::tie(other.unrevoked, other.barred);
    }
  };
  struct Found {
    int list;
    int point;  ///< -1: at none of the certificate's
  };

  const Certificate& certificate(int index) const { return at(world_.certificates, index); }
  const List& list(int index) const { return at(world_.lists, index); }

  Verdict decide(int index, const Assumptions& assumptions, bool useOCSP);
  Verdict decideAnew(int index, const Assumptions& assumptions, bool useOCSP);
  Verdict byLists(int index, const Assumptions& assumptions, bool byName);
  bool covered(int list, int index, bool byName) const;
  bool namesItsSigner(int list, int index, bool byName) const;
  bool newer(const std::vector<Found>& found, int point, const List& a, const List& b) const;
  std::optional<Verdict> byAnswers(int index, const Assumptions& assumptions);
  std::optional<Verdict> byAnswer(int index, const Answer& answer, const Assumptions& assumptions);
  bool mayAnswer(int index, const Answer& answer, const Assumptions& assumptions);

  std::vector<int> pathOf(int index) const;
  bool vouchedFor(int index, const Assumptions& assumptions, bool byListsOnly);
  bool usable(int list, const Assumptions& assumptions);
  bool wellMade(const List& list) const;

  std::vector<DistributionPoint> pointsOf(int index, bool byName) const;
  std::vector<Found> found(int index, bool byName) const;
  std::vector<Found> announcedBy(int list, const std::vector<Found>& known) const;
  bool inScope(const List& list, const DistributionPoint& point, int index) const;
  bool current(const List& list) const;
  bool fits(const List& delta, const List& complete) const;
  bool newer(const List& a, const List& b) const;
  std::optional<int> reasonIn(const List& list, int index) const;
  std::vector<const List*> newestOf(std::vector<const List*> candidates,
                                    const std::vector<Found>& found, int point) const;
  Verdict judge(int index, const std::vector<Found>& found, bool byName) const;
  const List* deltaFor(const List& complete, const std::vector<Found>& found, int point) const;

  const World& world_;
  const Offer& offer_;
  Reading reading_{};
  Certificates settled_;  ///< of the path, decided before
  std::map<std::tuple<int, Assumptions, bool>, Verdict> known_;
};

}  // namespace Velantrix::Test::Truth
