// What the authorities of a world say in four days about what happens in it.
#pragma once

#include "model/GroundTruthWorld.h"

#include <string>
#include <vector>

namespace Velantrix::Test::Truth {

enum class Signing {
  Own,
  SeparateByParent,
  SeparateBySelf,
  Rollover,
  IndirectByParent,
  IndirectBySelf
};
enum class Form { Full, UsersAndCAs, FullAndUsers, Partition, Reasons };
enum class Spelling { NoPoint, Uri, Directory, Relative, Both, TwoPoints };
enum class Deltas { None, Certificate, List, Unannounced };

/// Whose key signs lists from then on; nobody's: there are no more.
struct Turn {
  Minutes from;
  int certificate;
};

struct Authority {
  std::string tag;
  int certificate = 0;
  int parent = kNobody;  ///< an authority
  Signing signing = Signing::Own;
  Form form = Form::Full;
  Spelling spelling = Spelling::Uri;
  Deltas deltas = Deltas::None;
  std::string listIssuer = {};
  bool indirect = false;   ///< the lists' issuer is another one
  bool forOthers = false;  ///< the lists are about others' certificates, too
  bool numbered = true;
  bool pointReasons = false;
  bool capitals = false;
  std::vector<int> series = {};
  std::vector<Turn> turns = {};
  std::vector<std::string> responders = {};
  int serials = 0;
};

/// Issues the lists of all series of an authority. Both are borrowed.
class Publisher {
 public:
  Publisher(World& world, Chance& chance) : world_(world), chance_(chance) {}

  void publish(const Authority& authority);

 private:
  int signerAt(const Authority& authority, Minutes time) const;
  bool isPlain(const Authority& authority, bool untilNext) const;
  bool covers(const Series& series, int index) const;
  List blank(const Authority& authority, const Series& series, Minutes time, int number) const;
  void issueComplete(const Authority& authority, Series& series, Minutes time, int number,
                     std::optional<Minutes> until);
  void issueDelta(const Authority& authority, Series& series, Minutes time, int number,
                  Minutes until, bool olderBase);
  void addChange(List& list, const Series& series, int index, Minutes since) const;
  Entry entry(int index, int reason, Minutes time) const;
  void add(std::vector<int>& issued, List list);
  const Certificate& certificate(int index) const { return at(world_.certificates, index); }

  World& world_;
  Chance& chance_;
};

}  // namespace Velantrix::Test::Truth
