// A Qt 5 window for the accessibility tests and figures, as accessible_gtk3.cpp describes them.
#include <unistd.h>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QMenuBar>
#include <QPushButton>
#include <QScrollArea>
#include <QSlider>
#include <QSocketNotifier>
#include <QSpinBox>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>

#include <cstdio>
#include <string>

#include "report.h"

namespace {

std::string utf8(const QString& text) {
  return text.toStdString();
}

QPushButton* button(const char* text) {
  auto* made = new QPushButton(QString::fromUtf8(text));
  made->setObjectName(QString::fromUtf8(text));
  QObject::connect(made, &QPushButton::clicked, [text] { report(std::string("clicked ") + text); });
  return made;
}

template <class T>
T* described(const char* text, T* widget) {
  widget->setObjectName(text);
  widget->setAccessibleName(text);
  return widget;
}

void fillForm(QMainWindow& window) {
  QMenu* menu = window.menuBar()->addMenu("File Menu");
  for (const char* text : {"Open Item", "Save Item"}) {
    QObject::connect(menu->addAction(text), &QAction::triggered,
                     [text] { report(std::string("clicked ") + text); });
  }
  auto* body = new QWidget;
  auto* box = new QVBoxLayout(body);
  auto* label = new QLabel("A Label");
  label->setObjectName("A Label");
  box->addWidget(label);
  box->addWidget(button("Save As…"));
  QPushButton* disabled = button("Disabled");
  disabled->setEnabled(false);
  box->addWidget(disabled);
  auto* check = new QCheckBox("Check");
  check->setObjectName("Check");
  QObject::connect(check, &QCheckBox::toggled,
                   [](bool on) { report(std::string("check ") + (on ? "1" : "0")); });
  box->addWidget(check);
  auto* entry = described("The Entry", new QLineEdit(QString::fromUtf8("first 世界 👋")));
  QObject::connect(entry, &QLineEdit::textChanged,
                   [](const QString& text) { report("entry " + utf8(text)); });
  box->addWidget(entry);
  auto* secret = described("The Secret", new QLineEdit("hidden"));
  secret->setEchoMode(QLineEdit::Password);
  box->addWidget(secret);
  auto* scale = described("The Scale", new QSlider(Qt::Horizontal));
  scale->setRange(0, 100);
  scale->setValue(25);
  QObject::connect(scale, &QSlider::valueChanged,
                   [](int value) { report("scale " + std::to_string(value)); });
  box->addWidget(scale);
  auto* spin = described("The Spin", new QSpinBox);
  spin->setRange(0, 10);
  spin->setValue(3);
  box->addWidget(spin);
  auto* combo = described("The Combo", new QComboBox);
  combo->addItems({"Red", "Green", "Blue"});
  combo->setCurrentIndex(1);
  QObject::connect(combo, qOverload<int>(&QComboBox::currentIndexChanged),
                   [](int index) { report("combo " + std::to_string(index)); });
  box->addWidget(combo);
  auto* list = described("The List", new QListWidget);
  list->addItems({"Row One", "Row Two"});
  box->addWidget(list);
  auto* table = described("The Table", new QTableWidget(5, 2));
  for (int row = 0; row < 5; ++row) {
    table->setItem(row, 0, new QTableWidgetItem(QString("cell %1").arg(row)));
    table->setItem(row, 1, new QTableWidgetItem("second"));
  }
  box->addWidget(table);
  auto* tabs = new QTabWidget;
  tabs->addTab(button("On Page One"), "One");
  tabs->addTab(button("On Page Two"), "Two");
  box->addWidget(tabs);
  auto* scroll = new QScrollArea;
  scroll->setFixedHeight(60);
  auto* inside = new QWidget;
  auto* column = new QVBoxLayout(inside);
  for (const char* text : {"Scroll 1", "Scroll 2", "Scroll 3", "Scroll 4", "Scroll 5"})
    column->addWidget(button(text));
  scroll->setWidget(inside);
  box->addWidget(scroll);
  window.setCentralWidget(body);
}

void fillMany(QMainWindow& window, int count) {
  auto* body = new QWidget;
  auto* grid = new QGridLayout(body);
  grid->setSpacing(0);
  for (int row = 0; row < count / 4; ++row) {
    const QString suffix = QString(" %1").arg(row);
    auto* line = new QWidget;
    auto* layout = new QHBoxLayout(line);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(new QLabel("label" + suffix));
    layout->addWidget(new QPushButton("button" + suffix));
    layout->addWidget(new QCheckBox("check" + suffix));
    grid->addWidget(line, row / 6, row % 6);
  }
  window.setCentralWidget(body);
}

void tellFrames() {
  for (const QWidget* widget : QApplication::allWidgets()) {
    const std::string name = utf8(widget->objectName());
    if (name.empty() || name.starts_with("qt_") || !widget->isVisible()) continue;
    const QPoint at = widget->mapToGlobal(QPoint(0, 0));
    report("frame " + name + " " + std::to_string(at.x()) + " " + std::to_string(at.y()) + " " +
           std::to_string(widget->width()) + " " + std::to_string(widget->height()));
  }
  report("done");
}

void command(QMainWindow& window, const std::string& line) {
  int x = 0;
  int y = 0;
  if (line == "frames") {
    tellFrames();
  } else if (std::sscanf(line.c_str(), "move %d %d", &x, &y) == 2) {
    window.move(x, y);
  } else if (line == "remove") {
    delete window.findChild<QPushButton*>(QString::fromUtf8("Save As…"));
    report("removed");
  } else if (line.starts_with("second ")) {
    auto* second = new QMainWindow;
    second->setAttribute(Qt::WA_DeleteOnClose);
    second->setWindowTitle(QString::fromStdString(line.substr(7)));
    second->resize(window.size());
    second->setCentralWidget(button("In Second"));
    second->show();
    report("second");
  }
}

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  const std::string kind = argc > 1 ? argv[1] : "form";
  QMainWindow window;
  window.setWindowTitle("Accessible Qt 5");
  window.resize(700, 800);
  if (kind == "many")
    fillMany(window, std::stoi(argv[2]));
  else
    fillForm(window);
  std::string unread;
  QSocketNotifier commands(0, QSocketNotifier::Read);
  QObject::connect(&commands, &QSocketNotifier::activated, [&] {
    char chunk[4096];
    const ssize_t count = ::read(0, chunk, sizeof chunk);
    if (count <= 0) {
      commands.setEnabled(false);
      return;
    }
    unread.append(chunk, static_cast<std::size_t>(count));
    for (auto end = unread.find('\n'); end != std::string::npos; end = unread.find('\n')) {
      const std::string line = unread.substr(0, end);
      unread.erase(0, end + 1);
      command(window, line);
    }
  });
  window.show();
  report("ready");
  return QApplication::exec();
}
