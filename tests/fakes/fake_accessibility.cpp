#include "fakes/fake_accessibility.h"

namespace vesko::fakes {
namespace {

class Session : public AccessibilitySession {
 public:
  explicit Session(FakeAccessibility& fake) : fake_(fake) {}

  std::expected<AXElement, AXError> application(pid_t process) override {
    const auto found = fake_.applications.find(process);
    if (found == fake_.applications.end()) return std::unexpected(AXError::apiDisabled);
    return numberOf(*found->second);
  }

  std::expected<AXElement, AXError> systemWide() override {
    system_.state.role = "AXSystemWide";
    system_.children.clear();
    for (const auto& [pid, root] : fake_.applications) system_.children.push_back(root);
    return numberOf(system_);
  }

  std::expected<AXElement, AXError> focusedWindow(AXElement application) override {
    for (const auto& [pid, window] : fake_.focusedWindows) {
      if (fake_.applications[pid].get() == elements_[application]) return numberOf(*window);
    }
    return std::unexpected(AXError::noValue);
  }

  std::vector<AXElementState> read(std::span<const AXElement> elements, AXAttributeSet wanted,
                                   std::size_t maxChildren) override {
    fake_.onRead(elements.size());
    std::vector<AXElementState> states;
    for (const AXElement number : elements) {
      const FakeElement& element = *elements_[number];
      AXElementState& state = states.emplace_back();
      if (fake_.answersBeforeHanging == 0) {
        incomplete_ = true;
        state.error = AXError::cannotComplete;
      } else if (element.gone) {
        state.error = AXError::invalidElement;
      } else {
        --fake_.answersBeforeHanging;
        state = only(element.state, wanted);
        if (wanted & axAttributes::children) list(element, state, maxChildren);
      }
    }
    return states;
  }

  bool incomplete() const override { return incomplete_; }

  AXError setFocused(AXElement number) override {
    FakeElement& element = *elements_[number];
    if (element.answer == AXError::success) element.state.focused = true;
    return element.answer;
  }
  AXError perform(AXElement number, AXAction action) override {
    FakeElement& element = *elements_[number];
    if (element.answer == AXError::success) element.performed.push_back(action);
    return element.answer;
  }
  AXError setValue(AXElement number, std::string_view value) override {
    FakeElement& element = *elements_[number];
    if (element.answer == AXError::success) element.state.value = std::string(value);
    return element.answer;
  }

 private:
  AXElement numberOf(FakeElement& element) {
    const auto [found, isNew] =
        numbers_.try_emplace(&element, static_cast<AXElement>(elements_.size()));
    if (isNew) elements_.push_back(&element);
    return found->second;
  }

  static AXElementState only(const AXElementState& state, AXAttributeSet wanted) {
    using namespace axAttributes;
    AXElementState result;
    if (wanted & role) result.role = state.role;
    if (wanted & subrole) result.subrole = state.subrole;
    if (wanted & title) result.title = state.title;
    if (wanted & value) result.value = state.value;
    if (wanted & enabled) result.enabled = state.enabled;
    if (wanted & focused) result.focused = state.focused;
    if (wanted & frame) result.frame = state.frame;
    return result;
  }

  void list(const FakeElement& element, AXElementState& state, std::size_t& room) {
    for (const auto& child : element.children) {
      if (room == 0) {
        state.moreChildren = true;
        return;
      }
      --room;
      state.children.push_back(numberOf(*child));
    }
  }

  FakeAccessibility& fake_;
  FakeElement system_;
  std::vector<FakeElement*> elements_;
  std::map<FakeElement*, AXElement> numbers_;
  bool incomplete_ = false;
};

}  // namespace

FakeElement& FakeElement::add(std::string role, std::optional<std::string> title) {
  auto child = std::make_shared<FakeElement>();
  child->state.role = std::move(role);
  child->state.title = std::move(title);
  return *children.emplace_back(std::move(child));
}

std::unique_ptr<AccessibilitySession> FakeAccessibility::begin(
    std::chrono::steady_clock::time_point) {
  return std::make_unique<Session>(*this);
}

FakeElement& FakeAccessibility::application(pid_t pid) {
  auto& root = applications[pid];
  if (!root) {
    root = std::make_shared<FakeElement>();
    root->state.role = "AXApplication";
  }
  return *root;
}

}  // namespace vesko::fakes
